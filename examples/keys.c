/* keys.c - makes a pair of keys: the secret one into a file of its owner's, the public one as a line for a ring file.
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
  /* The user of a key is the user of the nodes that sign with it: the login name, of which a message carries 12. */
  if (!GetUserName(user, &length)) {
    fprintf(stderr, "the user has no name\n");
    return 1;
  }
  if (length > (int)MQC_USER_MAX) user[MQC_USER_MAX] = '\0';

  int ok = mqc_generate_key(secret_key, public_key);
  if (!ok) {
    fprintf(stderr, "no randomness\n");
  } else if (!(ok = mqc_secret_file_write(argv[1], user, secret_key, error, sizeof error))) {
    fprintf(stderr, "%s\n", error);
  } else {
    mqc_key_text(public_key, text);
    ok = printf("%s %s\n", user, text) > 0 && fflush(stdout) == 0;
  }
  mqc_wipe(secret_key, sizeof secret_key);
  return ok ? 0 : 1;
}
