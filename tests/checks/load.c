/* load.c - a program that links neither library loads libmqnode.so: without the companion it is told a missing name,
 * after the companion was loaded it works. Usage: load LIBRARY COMPANION */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

static int IsCompanionName(const char* message) {
  static const char* const names[] = {
      "fNewMemory",     "FreeMemory",     "CreateBuffer",     "ResetBuffer",   "SizeBuffer",       "DeleteBuffer",
      "LOGMSG",         "GetUserName",    "strip_spaces",     "strupper",      "trim_str",         "bwlong",
      "IsLtEndian",     "IsAscText",      "AlienToNativeExt", "AlienToNative", "AlienPcfToNative", "RawToPcf",
      "SizePcfMessage", "DumpPcfMessage", "VerifyMessage",    "mqc_sign",      "mqc_authenticate"};
  const char* const start = strstr(message, "undefined symbol: ");
  if (start == NULL) return 0;
  for (size_t i = 0; i < sizeof names / sizeof names[0]; ++i) {
    if (strncmp(start + strlen("undefined symbol: "), names[i], strlen(names[i])) == 0) return 1;
  }
  return 0;
}

static int Fail(const char* what, const char* why) {
  fprintf(stderr, "load: %s: %s\n", what, why != NULL ? why : "no reason given");
  return 1;
}

int main(int argc, char** argv) {
  if (argc != 3) return Fail("usage", "load LIBRARY COMPANION");
  if (dlopen(argv[1], RTLD_NOW) != NULL) return Fail("the library loaded", "there was no companion");
  const char* const message = dlerror();
  if (message == NULL || !IsCompanionName(message)) return Fail("no name of the companion in the message", message);
  /* Lazy binding asked for: the library itself says that it binds at once. */
  if (dlopen(argv[1], RTLD_LAZY) != NULL) return Fail("the library loaded lazily", "there was no companion");

  if (dlopen(argv[2], RTLD_NOW | RTLD_GLOBAL) == NULL) return Fail("companion", dlerror());
  void* const library = dlopen(argv[1], RTLD_NOW);
  if (library == NULL) return Fail("with the companion", dlerror());
  void* (*queue_new)(void);
  void (*queue_free)(void** queue);
  *(void**)&queue_new = dlsym(library, "Qalloc");
  *(void**)&queue_free = dlsym(library, "Qfree");
  if (queue_new == NULL || queue_free == NULL) return Fail("functions of the library", dlerror());
  void* queue = queue_new();
  if (queue == NULL) return Fail("Qalloc", "null");
  queue_free(&queue);
  if (queue != NULL) return Fail("Qfree", "the pointer was not cleared");
  return 0;
}
