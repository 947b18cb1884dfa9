#pragma once

#include "capturesource.h"
#include "frame/wcapture.h"
#include "outwriter.h"
#include "tick_generator.h"

#include <QObject>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

// Joins the capture frame, the tick generator and the writer: while live, every tick grabs
// the framed area and hands it to the writer.
class CaptureStreamer : public QObject, public ITickHandler {
    Q_OBJECT

public:
    CaptureStreamer();
    ~CaptureStreamer() override;

    WCapture& capture() { return captureFrame; }
    const CaptureSource& captureSource() const { return source; }

    void stop();
    void onTick(const Tick& tick) override;

Q_SIGNALS:
    void need_reconnect();

public Q_SLOTS:
    void try_connect();

private:
    // One live run's tick threads.
    struct Run;

    bool startTicks(std::string& error);
    // Waits for the last run's threads, which end within a tick period of its stop.
    void joinTicks();
    void showFailure(const std::string& error);
    // Every way out of the program ends the stream as switching live off does.
    void shutDown();
    static void shutDownAtExit();

    WCapture captureFrame;
    CaptureSource source{captureFrame.drawingForm()};
    OUTWriter writer;
    // The writer takes no lock of its own: this one keeps a start or stop on the interface
    // thread from freeing what a frame being written on a worker thread still uses.
    std::mutex frameMutex;
    // The run whose ticks may write, 0 while nothing is live; changed under frameMutex.
    uint64_t liveRun = 0;
    // Counts the starts; only the interface thread changes it.
    uint64_t runs = 0;
    std::unique_ptr<Run> ticks;
    // START's connect runs off the interface thread, which keeps painting meanwhile.
    bool connecting = false;
    std::atomic<bool> abandonConnect{false};
};
