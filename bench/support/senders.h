#pragma once

#include "sender.h"

#include <QPoint>
#include <QProcess>
#include <QRect>
#include <QTemporaryDir>

class CaptureStreamer;

// The program's own live path in this process: the capture streamer that the program's main
// window drives, started and stopped as START and the live switch do.
class InProcessSender : public Sender {
public:
    explicit InProcessSender(CaptureStreamer& streamer) : streamer(streamer) {}
    const char* name() const override { return "Brindlewave (CaptureStreamer)"; }
    bool start(uint16_t port, int latencyMs) override;
    pid_t pid() const override;
    void stop() override;

private:
    CaptureStreamer& streamer;
};

// The real executable, told the server's address through its settings and switched live by
// a real click on its live button.
class ExecutableSender : public Sender {
public:
    // liveButton, columnInPlace: where an identical apparatus put them on this screen.
    ExecutableSender(QString executable, QPoint liveButton, QPoint columnInPlace)
        : executable(std::move(executable)), liveButton(liveButton), columnInPlace(columnInPlace) {}
    const char* name() const override { return "brindlewave executable"; }
    bool start(uint16_t port, int latencyMs) override;
    pid_t pid() const override { return static_cast<pid_t>(program.processId()); }
    void stop() override;

private:
    QString executable;
    QPoint liveButton;
    QPoint columnInPlace;
    QTemporaryDir folder;
    QProcess program;
};

// The FFmpeg command-line tool doing the same job on the same rectangle; with a PulseAudio
// source, also its sound (AAC, 128 kbit/s, 48 kHz).
class FfmpegSender : public Sender {
public:
    explicit FfmpegSender(QRect area, QString sound = QString())
        : area(area), sound(std::move(sound)) {}
    const char* name() const override { return "ffmpeg -f x11grab (same job)"; }
    bool start(uint16_t port, int latencyMs) override;
    pid_t pid() const override { return static_cast<pid_t>(ffmpeg.processId()); }
    void stop() override;
    // The command line, for the record.
    QStringList arguments(uint16_t port, int latencyMs) const;

private:
    QRect area;
    QString sound;
    QProcess ffmpeg;
};
