// Loads libIntf.so with dlopen into a process that is not linked with it
// and prints what the library's start-up did.
#include <dlfcn.h>

#include <cstdio>

int main(int argc, char ** argv) {
   if (argc != 2) return 2;
   void * h = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
   if (!h) {
      std::fprintf(stderr, "dlopen: %s\n", dlerror());
      return 1;
   }
   auto report = reinterpret_cast<const char * (*)()>(dlsym(h, "intfStartupReport"));
   if (!report) return 1;
   std::fputs(report(), stdout);
   return 0;
}
