// A network in a box for the tests and the benchmarks: a UDP relay on 127.0.0.1 that stands
// for an uplink between a caller and a server. Datagrams from the caller (whoever last sent
// to the listening port) go to the target port, the answers go back; each direction has the
// same bottleneck rate with a drop-tail queue, one-way delay and random loss.
//
// Usage: netrelay --listen PORT --target PORT [--rate KBIT] [--queue-ms MS] [--delay-ms MS]
//                 [--loss PERCENT] [--schedule S:KBIT,...] [--seed N]
//   --listen 0 takes a free port. --rate 0 (default): no bottleneck. --queue-ms: the queue
//   holds this long a burst at the current rate (default 200). --schedule changes the rate
//   S seconds after the first datagram arrived, e.g. 20:1500,40:8000.
// Prints "listening PORT" once bound; "counters ..." for each line "counters" read on stdin,
// and once more at exit (SIGTERM or SIGINT). "late" counts the datagrams the relay itself sent
// on more than 10 ms after they were due, for want of the processor.

#include "bottleneck.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

namespace {

volatile std::sig_atomic_t ending = 0;
constexpr int relayNice = -10;

void onSignal(int) {
    ending = 1;
}

int64_t nowUs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

struct Options {
    int listenPort = -1;
    int targetPort = -1;
    int64_t rateKbit = 0;
    int64_t queueMs = 200;
    int64_t delayMs = 0;
    double lossPercent = 0;
    uint32_t seed = 1;
    std::vector<std::pair<int64_t, int64_t>> schedule; // seconds, kbit/s
};

bool parseSchedule(const char* text, Options& options) {
    std::string rest = text;
    while (!rest.empty()) {
        const std::size_t comma = rest.find(',');
        const std::string item = rest.substr(0, comma);
        rest = comma == std::string::npos ? std::string() : rest.substr(comma + 1);
        const std::size_t colon = item.find(':');
        if (colon == std::string::npos)
            return false;
        options.schedule.emplace_back(std::atoll(item.c_str()),
                                      std::atoll(item.c_str() + colon + 1));
    }
    return true;
}

bool parse(int argc, char** argv, Options& options) {
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        const char* value = argv[i + 1];
        if (name == "--listen")
            options.listenPort = std::atoi(value);
        else if (name == "--target")
            options.targetPort = std::atoi(value);
        else if (name == "--rate")
            options.rateKbit = std::atoll(value);
        else if (name == "--queue-ms")
            options.queueMs = std::atoll(value);
        else if (name == "--delay-ms")
            options.delayMs = std::atoll(value);
        else if (name == "--loss")
            options.lossPercent = std::atof(value);
        else if (name == "--seed")
            options.seed = static_cast<uint32_t>(std::strtoul(value, nullptr, 10));
        else if (name != "--schedule" || !parseSchedule(value, options))
            return false;
    }
    return argc % 2 == 1 && options.listenPort >= 0 && options.targetPort > 0;
}

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int udpSocket(int port) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    const sockaddr_in address = loopback(port);
    // Bursts at full speed meet the relay's own queue, not the kernel's.
    const int bytes = 8 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return -1;
    return fd;
}

void printCounters(const Bottleneck& up, const Bottleneck& down, int64_t rateKbit) {
    const Bottleneck::Counters& u = up.counters();
    const Bottleneck::Counters& d = down.counters();
    std::printf("counters rate=%lld up forwarded=%lld queue_drops=%lld loss_drops=%lld "
                "bytes=%lld down forwarded=%lld queue_drops=%lld loss_drops=%lld bytes=%lld "
                "late=%lld worst_late_ms=%lld\n",
                static_cast<long long>(rateKbit), static_cast<long long>(u.forwarded),
                static_cast<long long>(u.queueDrops), static_cast<long long>(u.lossDrops),
                static_cast<long long>(u.bytes), static_cast<long long>(d.forwarded),
                static_cast<long long>(d.queueDrops), static_cast<long long>(d.lossDrops),
                static_cast<long long>(d.bytes), static_cast<long long>(u.late + d.late),
                static_cast<long long>(std::max(u.worstLateUs, d.worstLateUs) / 1000));
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    if (!parse(argc, argv, options)) {
        std::fprintf(stderr, "usage: netrelay --listen PORT --target PORT [--rate KBIT] "
                             "[--queue-ms MS] [--delay-ms MS] [--loss PERCENT] "
                             "[--schedule S:KBIT,...] [--seed N]\n");
        return 2;
    }
    // The signals that end the relay arrive only while it waits, so that none is missed
    // between the look at `ending` and the wait.
    // A network does not wait for the processor. On a machine loaded with builds, a relay in
    // its caller's scheduling group (Linux groups processes by session) sent datagrams up to
    // 257 ms after they were due, even at a higher priority within the group; in a session of
    // its own, up to 65 ms; in a session whose group goes ahead of the others, at most 18 to
    // 46 ms (the late counter). Late datagrams ate a 160 ms receiver latency and broke streams
    // that a real link would have carried. The relay needs a few per cent of one processor.
    setsid();
    setpriority(PRIO_PROCESS, 0, relayNice);
    if (FILE* group = std::fopen("/proc/self/autogroup", "w")) {
        std::fprintf(group, "%d", relayNice);
        std::fclose(group);
    }
    std::signal(SIGTERM, onSignal);
    std::signal(SIGINT, onSignal);
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t endingSignals;
    sigemptyset(&endingSignals);
    sigaddset(&endingSignals, SIGTERM);
    sigaddset(&endingSignals, SIGINT);
    sigset_t whileWaiting;
    sigprocmask(SIG_BLOCK, &endingSignals, &whileWaiting);
    sigdelset(&whileWaiting, SIGTERM);
    sigdelset(&whileWaiting, SIGINT);

    const int outer = udpSocket(options.listenPort);
    const int inner = udpSocket(0);
    const sockaddr_in target = loopback(options.targetPort);
    if (outer < 0 || inner < 0 ||
        connect(inner, reinterpret_cast<const sockaddr*>(&target), sizeof target) != 0) {
        std::fprintf(stderr, "netrelay: cannot bind or connect: %s\n", std::strerror(errno));
        return 1;
    }
    sockaddr_in bound{};
    socklen_t boundLength = sizeof bound;
    getsockname(outer, reinterpret_cast<sockaddr*>(&bound), &boundLength);
    std::printf("listening %u\n", ntohs(bound.sin_port));
    std::fflush(stdout);

    const double loss = options.lossPercent / 100;
    Bottleneck up(options.delayMs * 1000, loss, options.queueMs * 1000, options.seed);
    Bottleneck down(options.delayMs * 1000, loss, options.queueMs * 1000, options.seed + 1);
    int64_t rateKbit = options.rateKbit;
    up.setRate(rateKbit * 1000);
    down.setRate(rateKbit * 1000);

    sockaddr_in caller{};
    socklen_t callerLength = 0;
    int64_t firstUs = -1;
    std::size_t nextChange = 0;
    std::vector<char> buffer(65536);
    std::vector<char> datagram;
    std::string command;
    bool input = true;
    while (!ending) {
        int64_t now = nowUs();
        while (firstUs >= 0 && nextChange < options.schedule.size() &&
               now - firstUs >= options.schedule[nextChange].first * 1000000) {
            rateKbit = options.schedule[nextChange++].second;
            up.setRate(rateKbit * 1000);
            down.setRate(rateKbit * 1000);
        }
        while (up.take(now, datagram))
            send(inner, datagram.data(), datagram.size(), 0);
        while (callerLength > 0 && down.take(now, datagram))
            sendto(outer, datagram.data(), datagram.size(), 0,
                   reinterpret_cast<const sockaddr*>(&caller), callerLength);

        int64_t wakeUs = -1;
        for (const int64_t due : {up.nextDueUs(), down.nextDueUs()})
            if (due >= 0 && (wakeUs < 0 || due < wakeUs))
                wakeUs = due;
        if (firstUs >= 0 && nextChange < options.schedule.size()) {
            const int64_t change = firstUs + options.schedule[nextChange].first * 1000000;
            wakeUs = wakeUs < 0 ? change : std::min(wakeUs, change);
        }
        pollfd fds[3] = {{outer, POLLIN, 0}, {inner, POLLIN, 0}, {input ? 0 : -1, POLLIN, 0}};
        timespec wait{};
        const int64_t waitUs = wakeUs < 0 ? -1 : std::max<int64_t>(0, wakeUs - now);
        wait.tv_sec = waitUs / 1000000;
        wait.tv_nsec = (waitUs % 1000000) * 1000;
        if (ppoll(fds, 3, waitUs < 0 ? nullptr : &wait, &whileWaiting) < 0)
            continue;
        now = nowUs();
        if (fds[0].revents & POLLIN) {
            sockaddr_in from{};
            socklen_t fromLength = sizeof from;
            ssize_t size;
            while ((size = recvfrom(outer, buffer.data(), buffer.size(), 0,
                                    reinterpret_cast<sockaddr*>(&from), &fromLength)) >= 0) {
                caller = from;
                callerLength = fromLength;
                if (firstUs < 0)
                    firstUs = now;
                up.arrive(buffer.data(), static_cast<int>(size), now);
                fromLength = sizeof from;
            }
        }
        if (fds[1].revents & POLLIN) {
            ssize_t size;
            while ((size = recv(inner, buffer.data(), buffer.size(), 0)) >= 0)
                down.arrive(buffer.data(), static_cast<int>(size), now);
        }
        if (fds[2].revents & (POLLIN | POLLHUP)) {
            char byte = 0;
            if (read(0, &byte, 1) != 1) {
                input = false; // nobody will ask: the counters come at exit
            } else if (byte != '\n') {
                command += byte;
            } else {
                if (command == "counters")
                    printCounters(up, down, rateKbit);
                command.clear();
            }
        }
    }
    printCounters(up, down, rateKbit);
    close(outer);
    close(inner);
    return 0;
}
