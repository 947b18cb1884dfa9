#pragma once

#include "frame/wcapture.h"
#include "outwriter.h"
#include "tick_generator.h"

#include <QObject>
#include <cstdint>
#include <mutex>
#include <string>

// Joins the capture frame, the tick generator and the writer: while live, every tick grabs
// the framed area and hands it to the writer.
class CaptureStreamer : public QObject, public ITickHandler {
    Q_OBJECT

public:
    CaptureStreamer();
    ~CaptureStreamer() override;

    WCapture& capture() { return captureFrame; }

    void stop();
    void onTick(int64_t dueMs) override;

Q_SIGNALS:
    void need_reconnect();

public Q_SLOTS:
    void try_connect();

private:
    void showFailure(const std::string& error);

    TickFlags flags;
    WCapture captureFrame;
    OUTWriter writer;
    // The writer takes no lock of its own: this one keeps a start or stop on the interface
    // thread from freeing what a frame being written on a worker thread still uses, and the
    // worker of an earlier run from replacing the picture the current one is writing.
    std::mutex frameMutex;
    // Counts the starts; changed under frameMutex, and only on the interface thread.
    uint64_t run = 0;
};
