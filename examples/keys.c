/* keys.c - generate a key pair: write the secret key to a file, print the public key as a line for a ring file.
 *   keys SECRETFILE >> RINGFILE */
#include "example.h"

int main(int argc, char** argv) {
  uint8_t secret_key[MQC_KEY_BYTES], public_key[MQC_KEY_BYTES];
  char user[256], text[MQC_KEY_TEXT], error[256];
  int length = sizeof user;
  if (argc != 2) {
    fprintf(stderr, "usage: keys SECRETFILE >> RINGFILE\n");
    return 2;
  }
  /* A key belongs to the user of the nodes that sign with it: by default the login name, cut to 12 characters. */
  if (!GetUserName(user, &length)) {
    fprintf(stderr, "cannot find the login name\n");
    return 1;
  }
  if (length > (int)MQC_USER_MAX) user[MQC_USER_MAX] = '\0';

  int ok = mqc_generate_key(secret_key, public_key);
  if (!ok) {
    fprintf(stderr, "the system has no random bytes\n");
  } else if (!(ok = mqc_secret_file_write(argv[1], user, secret_key, error, sizeof error))) {
    fprintf(stderr, "%s\n", error);
  } else {
    mqc_key_text(public_key, text);
    ok = printf("%s %s\n", user, text) > 0 && fflush(stdout) == 0;
  }
  mqc_wipe(secret_key, sizeof secret_key);
  return ok ? 0 : 1;
}
