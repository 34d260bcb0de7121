// Fault shim preloaded into comp by tests: while the file named by
// COMPTEST_CONNECT_FAULT holds an errno number, every IPv4 connect() fails
// with it at once (a timed-out connect takes minutes otherwise); an empty or
// missing file lets connects through. The file is read on every call, so a
// test changes the fault while comp runs.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace {

using ConnectFn = int (*)(int, const sockaddr*, socklen_t);

int FaultErrno() {
    const char* path = std::getenv("COMPTEST_CONNECT_FAULT");
    if (path == nullptr) return 0;
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return 0;
    char text[16] = {0};
    ssize_t n = read(fd, text, sizeof text - 1);
    close(fd);
    return n > 0 ? std::atoi(text) : 0;
}

}  // namespace

extern "C" int connect(int iFd, const sockaddr* pstAddr, socklen_t iLen) {
    static const auto pfReal = reinterpret_cast<ConnectFn>(dlsym(RTLD_NEXT, "connect"));
    const int saved = errno;
    const int fault = pstAddr != nullptr && pstAddr->sa_family == AF_INET ? FaultErrno() : 0;
    if (fault > 0) {
        errno = fault;
        return -1;
    }
    errno = saved;
    return pfReal(iFd, pstAddr, iLen);
}
