#include "LoadGen.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <thread>

#include "Relays.h"

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPauseAfterFailureMs = 1;
constexpr size_t kLatencyReserve = 1 << 17;

std::string Failure(const char* step) { return std::string(step) + ": " + std::strerror(errno); }

// connect() on a socket with a send time-out. A wait it makes can end in
// EINTR without a signal of the process's own (a freeze of its cgroup does
// that), while the kernel goes on making the connection: then the socket is
// waited for until it is writable, within the time-out, and its outcome read.
bool ConnectWithin(int fd, const sockaddr_in& addr, int timeoutMs) {
    if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) return true;
    if (errno != EINTR) return false;
    pollfd p{fd, POLLOUT, 0};
    int n;
    while ((n = poll(&p, 1, timeoutMs)) < 0 && errno == EINTR) {
    }
    if (n == 0) errno = ETIMEDOUT;
    if (n <= 0) return false;
    int err = 0;
    socklen_t len = sizeof err;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0) return false;
    errno = err;
    return err == 0;
}

// Reads one whole answer and checks that it is the request itself.
bool ReadAnswer(const LoadOptions& opt, int fd, std::vector<char>& answer, std::string* error) {
    const size_t hl = static_cast<size_t>(opt.headerLen);
    if (!RecvExact(fd, answer.data(), hl)) {
        *error = Failure("receive header");
        return false;
    }
    int body = DecimalHeaderLength(answer.data(), opt.headerLen);
    if (body < 0 || hl + static_cast<size_t>(body) > answer.size()) {
        *error = "answer header \"" + std::string(answer.data(), hl) + "\" is not a length";
        return false;
    }
    if (!RecvExact(fd, answer.data() + hl, static_cast<size_t>(body))) {
        *error = Failure("receive body");
        return false;
    }
    if (hl + static_cast<size_t>(body) != opt.request.size() ||
        std::memcmp(answer.data(), opt.request.data(), opt.request.size()) != 0) {
        *error = "answer differs from the request";
        return false;
    }
    return true;
}

// One exchange on a fresh connection. The latency ends when the whole answer
// is in; the connection is then read to its end, so that the server, which
// closes first, keeps the TIME_WAIT state and the client's ports stay free.
bool Exchange(const LoadOptions& opt, const sockaddr_in& addr, std::vector<char>& answer, uint32_t* latencyUs,
              std::string* error) {
    const Clock::time_point t0 = Clock::now();
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        *error = Failure("socket");
        return false;
    }
    struct Closer {
        int fd;
        ~Closer() { close(fd); }
    } closer{fd};
    timeval tv{opt.ioTimeoutMs / 1000, (opt.ioTimeoutMs % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    if (!ConnectWithin(fd, addr, opt.ioTimeoutMs)) {
        *error = Failure("connect");
        return false;
    }
    if (send(fd, opt.request.data(), opt.request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(opt.request.size())) {
        *error = Failure("send");
        return false;
    }
    if (!ReadAnswer(opt, fd, answer, error)) return false;
    const Clock::time_point t1 = Clock::now();
    char rest[64];
    ssize_t r;
    while ((r = recv(fd, rest, sizeof rest, 0)) > 0 || (r < 0 && errno == EINTR)) {
    }
    if (r < 0) {
        *error = Failure("waiting for the server to close");
        return false;
    }
    auto us = std::chrono::duration_cast<std::chrono::microseconds>(t1 - t0).count();
    *latencyUs = static_cast<uint32_t>(std::clamp<int64_t>(us, 0, UINT32_MAX));
    return true;
}

void ClientLoop(const LoadOptions& opt, const sockaddr_in& addr, Clock::time_point deadline,
                const volatile sig_atomic_t* stop, ClientTally* tally) {
    std::vector<char> answer(static_cast<size_t>(opt.headerLen) + 65536);
    tally->latencyUs.reserve(kLatencyReserve);
    while (Clock::now() < deadline && !(stop && *stop)) {
        uint32_t us = 0;
        std::string error;
        if (Exchange(opt, addr, answer, &us, &error)) {
            ++tally->exchanges;
            tally->latencyUs.push_back(us);
        } else {
            ++tally->failures;
            if (tally->firstError.empty()) tally->firstError = error;
            std::this_thread::sleep_for(std::chrono::milliseconds(kPauseAfterFailureMs));
        }
        tally->lastEnd = Clock::now();
    }
}


}  // namespace

LoadResult RunLoad(const LoadOptions& opt, const volatile sig_atomic_t* stop) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(opt.port));

    std::vector<ClientTally> tallies(static_cast<size_t>(std::max(opt.clients, 1)));
    const Clock::time_point start = Clock::now();
    const Clock::time_point deadline =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(opt.seconds));
    std::vector<std::thread> threads;
    for (ClientTally& t : tallies) {
        t.lastEnd = start;
        threads.emplace_back(ClientLoop, std::cref(opt), std::cref(addr), deadline, stop, &t);
    }
    for (std::thread& t : threads) t.join();
    return MergeTallies(tallies, start);
}

LoadResult MergeTallies(const std::vector<ClientTally>& tallies, Clock::time_point start) {
    LoadResult out;
    Clock::time_point end = start;
    for (const ClientTally& t : tallies) {
        out.exchanges += t.exchanges;
        out.failures += t.failures;
        out.latencyUs.insert(out.latencyUs.end(), t.latencyUs.begin(), t.latencyUs.end());
        if (out.firstError.empty()) out.firstError = t.firstError;
        end = std::max(end, t.lastEnd);
    }
    out.seconds = std::chrono::duration<double>(end - start).count();
    return out;
}

namespace {

constexpr int kReadyWaitMs = 10000;

// A persistent client: connected once, one untimed exchange (a relay that
// accepts on command has taken it then), then the timed loop once *go is set.
void PersistentClient(const LoadOptions& opt, const sockaddr_in& addr, const std::atomic<bool>* go,
                      const Clock::time_point* deadline, std::atomic<int>* settled, const volatile sig_atomic_t* stop,
                      ClientTally* tally) {
    std::vector<char> answer(static_cast<size_t>(opt.headerLen) + 65536);
    std::string error;
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct Closer {
        int fd;
        ~Closer() {
            if (fd >= 0) close(fd);
        }
    } closer{fd};
    timeval tv{opt.ioTimeoutMs / 1000, (opt.ioTimeoutMs % 1000) * 1000};
    auto once = [&] {
        return send(fd, opt.request.data(), opt.request.size(), MSG_NOSIGNAL) ==
                   static_cast<ssize_t>(opt.request.size()) &&
               ReadAnswer(opt, fd, answer, &error);
    };
    bool ok = fd >= 0 && setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0 &&
              setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv) == 0 &&
              ConnectWithin(fd, addr, opt.ioTimeoutMs) && once();
    if (!ok) {
        ++tally->failures;
        tally->firstError = error.empty() ? Failure("connect") : error;
    }
    settled->fetch_add(1);
    if (!ok) return;
    while (!go->load(std::memory_order_acquire)) {
        if (stop && *stop) return;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    tally->latencyUs.reserve(kLatencyReserve);
    while (Clock::now() < *deadline && !(stop && *stop)) {
        const Clock::time_point t0 = Clock::now();
        if (!once()) {
            ++tally->failures;
            if (tally->firstError.empty()) tally->firstError = error;
            break;   // the connection is out of step now
        }
        const Clock::time_point t1 = Clock::now();
        ++tally->exchanges;
        const int64_t us = std::chrono::duration_cast<std::chrono::microseconds>(t1 - t0).count();
        tally->latencyUs.push_back(static_cast<uint32_t>(std::clamp<int64_t>(us, 0, UINT32_MAX)));
        tally->lastEnd = t1;
    }
}

}  // namespace

LoadResult RunPersistentLoad(const LoadOptions& opt, const volatile sig_atomic_t* stop,
                             const std::function<void()>& onReady) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(opt.port));

    const size_t n = static_cast<size_t>(std::max(opt.clients, 1));
    std::vector<ClientTally> tallies(n);
    std::atomic<bool> go{false};
    std::atomic<int> settled{0};
    Clock::time_point deadline{};
    std::vector<std::thread> threads;
    for (ClientTally& t : tallies)
        threads.emplace_back(PersistentClient, std::cref(opt), std::cref(addr), &go, &deadline, &settled, stop, &t);
    const Clock::time_point waitEnd = Clock::now() + std::chrono::milliseconds(kReadyWaitMs);
    while (settled.load() < static_cast<int>(n) && Clock::now() < waitEnd && !(stop && *stop))
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (onReady) onReady();
    const Clock::time_point start = Clock::now();
    deadline = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(opt.seconds));
    for (ClientTally& t : tallies) t.lastEnd = start;
    go.store(true, std::memory_order_release);
    for (std::thread& t : threads) t.join();

    return MergeTallies(tallies, start);
}

bool RecvExact(int fd, char* out, size_t n) {
    size_t got = 0;
    while (got < n) {
        ssize_t r = recv(fd, out + got, n - got, 0);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) {
            if (r == 0) errno = ECONNRESET;
            return false;
        }
        got += static_cast<size_t>(r);
    }
    return true;
}

std::string FrameRequest(std::string_view body, int headerLen) {
    char head[16];
    std::snprintf(head, sizeof head, "%0*zu", headerLen, body.size());
    return std::string(head) + std::string(body);
}

double Quantile(std::vector<uint32_t>& values, double q) {
    if (values.empty()) return 0;
    q = std::clamp(q, 0.0, 1.0);
    size_t rank = static_cast<size_t>(std::ceil(q * static_cast<double>(values.size())));
    size_t idx = rank == 0 ? 0 : rank - 1;
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(idx), values.end());
    return values[idx];
}

double Median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

}  // namespace bench
