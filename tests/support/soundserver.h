#pragma once

#include <QProcess>
#include <QTemporaryDir>

// The tests' sound server: Debian's PulseAudio, started on a socket of its own with one null
// sink, "brindle", whose monitor records what is played into it. While the helper lives, this
// process and the tools it starts find that server through PULSE_SERVER.
class SoundServer {
public:
    ~SoundServer();
    // Returns once the server answers.
    bool start();
    // A sine of `hz` into the sink, until the sink goes.
    bool play(int hz) {
        return pactl(
            {"load-module", "module-sine", "sink=brindle", QString("frequency=%1").arg(hz)});
    }
    // The sink goes, and with it its monitor, as an unplugged device does; addSink() brings it
    // back under the same name.
    bool removeSink() { return pactl({"unload-module", sinkModule}); }
    bool addSink();
    // A source "brindle_mic" that records what is written into the FIFO `file`, as it is
    // written: 48 kHz mono signed 16-bit samples.
    bool addPipeSource(const QString& file) {
        return pactl({"load-module", "module-pipe-source", "source_name=brindle_mic",
                      "file=" + file, "format=s16le", "rate=48000", "channels=1"});
    }

private:
    bool pactl(const QStringList& arguments);

    QTemporaryDir folder;
    QProcess server;
    QString sinkModule;
};
