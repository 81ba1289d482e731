// Preloaded into a process under test: any attempt to open an internet socket is refused and
// recorded (one line per attempt) in the file named by PARLUNE_NETWORK_LOG. Local sockets
// (D-Bus, X11) pass through untouched.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <sys/socket.h>

extern "C" int socket(int domain, int type, int protocol) {
    if (domain == AF_INET || domain == AF_INET6) {
        if (const char* log = std::getenv("PARLUNE_NETWORK_LOG")) {
            if (FILE* out = std::fopen(log, "a")) {
                std::fprintf(out, "socket(%s)\n", domain == AF_INET ? "AF_INET" : "AF_INET6");
                std::fclose(out);
            }
        }
        errno = EACCES;
        return -1;
    }
    using Socket = int (*)(int, int, int);
    static const auto real = reinterpret_cast<Socket>(dlsym(RTLD_NEXT, "socket"));
    return real(domain, type, protocol);
}
