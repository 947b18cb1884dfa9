#include "capturestreamer.h"

#include "frame/drawingform.h"
#include "frame/linkindicator.h"

#include <QImage>
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
    {
        const std::lock_guard<std::mutex> lock(frameMutex);
        started = writer.start(params);
        error = writer.lastError();
    }
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

void CaptureStreamer::onTick() {
    std::string error;
    {
        // Workers of two runs may overlap for a tick; only one grabs and writes at a time.
        const std::lock_guard<std::mutex> lock(frameMutex);
        // A tick still under way when live was switched off belongs to the stopped stream.
        if (flags.stopFlag)
            return;
        const QImage* image = captureFrame.grab();
        if (!image)
            return;
        if (writer.writeFrame(image->constBits(), static_cast<int32_t>(image->sizeInBytes()),
                              image->width(), image->height(), image->bytesPerLine()))
            return;
        flags.stopFlag = true;
        writer.stop();
        error = writer.lastError();
    }
    // The windows belong to the interface thread.
    QMetaObject::invokeMethod(
        this, [this, error] { showFailure(error); }, Qt::QueuedConnection);
}

void CaptureStreamer::showFailure(const std::string& error) {
    captureFrame.setLive(false);
    captureFrame.drawingForm()->changeStatus(QString::fromStdString(error), 0);
    captureFrame.drawingForm()->showStartForm();
}
