#include "capturestreamer.h"

#include "frame/drawingform.h"
#include "frame/linkindicator.h"

#include <QApplication>
#include <chrono>
#include <cstdlib>
#include <thread>

CaptureStreamer::CaptureStreamer() {
    new LinkIndicator(captureFrame.liveButton(), [this] { return writer.linkDown(); });
    connect(&captureFrame, &WCapture::fullClose, this, [this] {
        stop();
        std::exit(0);
    });
}

// The writer stops as it is destroyed. The program never destroys a streamer: a worker
// thread of an earlier run may still hold it as its tick handler.
CaptureStreamer::~CaptureStreamer() = default;

void CaptureStreamer::try_connect() {
    const StreamParams params = captureFrame.drawingForm()->streamParams();

    bool started = false;
    std::string error;
    // The connect waits for the server, up to the library's connect time-out, on this thread.
    QApplication::setOverrideCursor(Qt::WaitCursor);
    QGuiApplication::sync();
    {
        const std::lock_guard<std::mutex> lock(frameMutex);
        ++run;
        started = writer.start(params);
        error = writer.lastError();
    }
    QApplication::restoreOverrideCursor();
    if (!started) {
        showFailure(error);
        return;
    }

    captureFrame.setLive(true);
    captureFrame.drawingForm()->setFormMode(0);

    // A generator of an earlier run that has not yet seen its stop would otherwise be revived
    // by the reset below and go on beating beside the new one.
    flags.stopFlag = true;
    while (flags.runningFlag)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    flags.stopFlag = false;
    flags.runningFlag = true;

    // The threads are never joined: each ends by itself, or lingers with only its own state.
    auto* state = new TickState;
    new std::thread(tickWorkerThread, state, static_cast<ITickHandler*>(this));
    new std::thread(tickGeneratorThread, &flags, state, 40);
}

void CaptureStreamer::stop() {
    flags.stopFlag = true;
    {
        const std::lock_guard<std::mutex> lock(frameMutex);
        writer.stop();
    }
    captureFrame.drawingForm()->setFormMode(2);
}

void CaptureStreamer::onTick(int64_t dueMs) {
    std::string error;
    uint64_t failedRun = 0;
    {
        // Workers of two runs may overlap for a tick; only one grabs and writes at a time.
        const std::lock_guard<std::mutex> lock(frameMutex);
        // A tick still under way when live was switched off belongs to the stopped stream.
        if (flags.stopFlag)
            return;
        const platform::GrabbedPicture* picture = captureFrame.grab();
        if (!picture)
            return;
        if (writer.writePicture(picture->data, pixelFormatOf(picture->layout), picture->width,
                                picture->height, picture->stride, dueMs))
            return;
        flags.stopFlag = true;
        writer.stop();
        error = writer.lastError();
        failedRun = run;
    }
    // The windows belong to the interface thread, and by the time they are reached the user may
    // have started another run, which this failure must leave alone.
    QMetaObject::invokeMethod(
        this,
        [this, error, failedRun] {
            if (failedRun == run)
                showFailure(error);
        },
        Qt::QueuedConnection);
}

void CaptureStreamer::showFailure(const std::string& error) {
    captureFrame.setLive(false);
    captureFrame.drawingForm()->changeStatus(QString::fromStdString(error), 0);
    captureFrame.drawingForm()->showStartForm();
}
