#include "srtlistener.h"

#include <algorithm>
#include <climits>

#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QTemporaryFile>
#include <arpa/inet.h>
#include <chrono>
#include <map>
#include <netinet/in.h>
#include <set>

namespace {

// libsrt may run a listener's handshake hook on its own thread after the listener has closed:
// the hook reaches only listeners that are still listening.
std::mutex hookMutex;
std::set<const SrtListener*> listening;

} // namespace

bool SrtListener::start(uint16_t port, bool ipv6) {
    stop();
    sockaddr_in v4{AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
    sockaddr_in6 v6{AF_INET6, htons(port), 0, in6addr_loopback, 0};
    const SRTSOCKET listenSocket = srt_create_socket();
    const int live = SRTT_LIVE;
    // Without time-stamp based delivery messages are recorded as they arrive: a receiver that
    // holds them back for its latency window loses what is still held when the caller closes.
    // Neither accepting nor reading waits: the accepted sockets take the listener's mode.
    const bool no = false;
    const bool timed = latencyMs > 0;
    if (srt_setsockflag(listenSocket, SRTO_TRANSTYPE, &live, sizeof live) != 0 ||
        srt_setsockflag(listenSocket, SRTO_RCVSYN, &no, sizeof no) != 0 ||
        srt_setsockflag(listenSocket, SRTO_TSBPDMODE, &timed, sizeof timed) != 0 ||
        (timed && srt_setsockflag(listenSocket, SRTO_RCVLATENCY, &latencyMs, sizeof latencyMs)) ||
        (!passphrase.empty() && srt_setsockflag(listenSocket, SRTO_PASSPHRASE, passphrase.data(),
                                                int(passphrase.size())) != 0) ||
        srt_bind(listenSocket, ipv6 ? (sockaddr*)&v6 : (sockaddr*)&v4,
                 ipv6 ? sizeof v6 : sizeof v4) ||
        srt_listen_callback(listenSocket, &SrtListener::onHandshake, this) != 0 ||
        srt_listen(listenSocket, 4) != 0) {
        srt_close(listenSocket);
        return false;
    }
    stopping = false;
    {
        const std::lock_guard<std::mutex> lock(hookMutex);
        listening.insert(this);
    }
    thread = std::thread(&SrtListener::run, this, listenSocket);
    return true;
}

int SrtListener::onHandshake(void* self, SRTSOCKET socket, int, const sockaddr*, const char*) {
    auto* listener = static_cast<SrtListener*>(self);
    const std::lock_guard<std::mutex> lock(hookMutex);
    if (!listening.count(listener))
        return -1;
    ++listener->handshakeCount;
    if (listener->refusal == 0)
        return 0;
    srt_setrejectreason(socket, listener->refusal);
    return -1;
}

void SrtListener::stop() {
    {
        const std::lock_guard<std::mutex> lock(hookMutex);
        listening.erase(this);
    }
    stopping = true;
    if (thread.joinable())
        thread.join();
}

void SrtListener::run(SRTSOCKET listenSocket) {
    std::map<SRTSOCKET, std::size_t> open; // accepted socket -> index in received
    // The last round, after the stop, closes whatever is still open.
    for (bool last = false; !last; std::this_thread::sleep_for(std::chrono::milliseconds(10))) {
        last = stopping;
        // One caller accepted per round: the listener stays ready while more are waiting.
        const SRTSOCKET accepted = srt_accept(listenSocket, nullptr, nullptr);
        if (accepted != SRT_INVALID_SOCK) {
            char streamId[600];
            int idLength = sizeof streamId;
            srt_getsockflag(accepted, SRTO_STREAMID, streamId, &idLength);
            std::lock_guard<std::mutex> lock(mutex);
            received.push_back({std::string(streamId, idLength), {}, false});
            open[accepted] = received.size() - 1;
        }
        // Every open connection is read each round, until it is closed.
        for (auto connection = open.begin(); connection != open.end();) {
            char message[1500];
            int length;
            while ((length = srt_recvmsg(connection->first, message, sizeof message)) > 0) {
                std::lock_guard<std::mutex> lock(mutex);
                received[connection->second].messages.emplace_back(message, length);
            }
            if (srt_getlasterror(nullptr) == SRT_EASYNCRCV && !last) {
                ++connection;
                continue;
            }
            srt_close(connection->first);
            std::lock_guard<std::mutex> lock(mutex);
            received[connection->second].closed = true;
            connection = open.erase(connection);
        }
    }
    srt_close(listenSocket);
}

std::vector<SrtListener::Connection> SrtListener::connections() const {
    std::lock_guard<std::mutex> lock(mutex);
    return received;
}

QByteArray SrtListener::bytes(std::size_t connection) const {
    const std::vector<Connection> all = connections();
    QByteArray joined;
    for (const QByteArray& message :
         connection < all.size() ? all[connection].messages : std::vector<QByteArray>())
        joined += message;
    return joined;
}

namespace {

// Runs a tool on a payload put in a file; its standard output, or nothing when it fails; or
// what it reported on its error output, and whether it failed.
QByteArray runTool(const QByteArray& payload, const QString& program, QStringList arguments,
                   bool errorOutput = false) {
    QTemporaryFile file;
    file.open();
    file.write(payload);
    file.flush();
    QProcess tool;
    tool.start(program, arguments.replaceInStrings("IN", file.fileName()));
    tool.waitForFinished(60000);
    const bool ok = tool.exitStatus() == QProcess::NormalExit && tool.exitCode() == 0;
    if (errorOutput)
        return (ok ? "" : "failed: ") + tool.readAllStandardError();
    return ok ? tool.readAllStandardOutput() : QByteArray();
}

} // namespace

QJsonObject SrtListener::probe(const QByteArray& payload) {
    const QStringList show{"-v", "error", "-show_streams", "-show_frames", "-of", "json", "IN"};
    return QJsonDocument::fromJson(runTool(payload, "ffprobe", show)).object();
}

QString SrtListener::video(std::size_t connection) const {
    const QJsonArray streams = probe(bytes(connection))["streams"].toArray();
    const QJsonObject video = streams[0].toObject();
    return streams.size() != 1 ? QString()
                               : QString("%1 %2x%3 %4")
                                     .arg(video["codec_name"].toString())
                                     .arg(video["width"].toInt())
                                     .arg(video["height"].toInt())
                                     .arg(video["r_frame_rate"].toString());
}

QImage SrtListener::picture(std::size_t connection, int index) const {
    const QString decode = "-v error -i IN -vf select=eq(n\\,%1) -frames:v 1 -f image2pipe "
                           "-vcodec ppm -";
    return QImage::fromData(runTool(bytes(connection), "ffmpeg", decode.arg(index).split(' ')),
                            "PPM")
        .convertToFormat(QImage::Format_RGB888);
}

QByteArray SrtListener::sound(std::size_t connection) const {
    return runTool(bytes(connection), "ffmpeg",
                   QString("-v error -i IN -map 0:a -ac 1 -ar 48000 -f s16le -").split(' '));
}

QByteArray SrtListener::decodeErrors(std::size_t connection, int from, int leftOut) const {
    QByteArray payload = bytes(connection);
    // Where each picture starts, whether it is a key frame (random access), and the program
    // tables before it.
    std::vector<int> starts, keys, tables{0};
    for (int at = 0; at + 188 <= payload.size(); at += 188) {
        const bool adapted = payload[at + 3] & 0x20;
        const int body = at + 4 + (adapted ? 1 + uchar(payload[at + 4]) : 0);
        if ((payload[at + 1] & 0x5f) == 0x40 && payload.at(at + 2) == 0)
            tables.push_back(at);
        if (!(payload[at + 1] & 0x40) || payload.mid(body, 4) != QByteArray("\0\0\1\xe0", 4))
            continue;
        starts.push_back(at);
        if (adapted && payload.at(at + 4) != 0 && (payload[at + 5] & 0x40))
            keys.push_back(at);
    }
    const auto key = std::lower_bound(keys.begin(), keys.end(),
                                      starts.size() > std::size_t(from) ? starts[from] : INT_MAX);
    if (key == keys.end() || starts.size() < std::size_t(leftOut) ||
        *key >= starts[starts.size() - leftOut])
        return "too few pictures";
    const int begin = *(std::upper_bound(tables.begin(), tables.end(), *key) - 1);
    payload = payload.mid(begin, starts[starts.size() - leftOut] - begin);
    const QStringList decode{"-v", "error", "-i", "IN", "-f", "null", "-"};
    return runTool(payload, "ffmpeg", decode, true);
}
