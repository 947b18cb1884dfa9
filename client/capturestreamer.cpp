#include "capturestreamer.h"

#include "frame/drawingform.h"
#include "frame/linkindicator.h"
#include "logfile.h"

#include <QApplication>
#include <QEventLoop>
#include <cstdlib>
#include <system_error>

namespace {

constexpr int32_t tickPeriodMs = 40;

// The one streamer of the process, for the way out that the toolkit takes by exit() when the
// display goes away.
CaptureStreamer* atExitStreamer = nullptr;

} // namespace

struct CaptureStreamer::Run {
    TickFlags flags;
    std::thread worker;
    std::thread generator;
};

CaptureStreamer::CaptureStreamer() {
    new LinkIndicator(captureFrame.liveButton(), [this] { return writer.linkSnapshot(); });
    connect(&captureFrame, &WCapture::dragging, &source, &CaptureSource::setPaused);
    connect(&captureFrame, &WCapture::fullClose, this, [this] {
        shutDown();
        std::exit(0);
    });
    // Closing the tool column from the window manager ends the program through the toolkit's
    // last-window rule, which returns from the event loop.
    connect(qApp, &QCoreApplication::aboutToQuit, this, &CaptureStreamer::shutDown);
    if (!atExitStreamer)
        std::atexit(&CaptureStreamer::shutDownAtExit);
    atExitStreamer = this;
}

// The writer stops as it is destroyed, after the threads that use it have ended.
CaptureStreamer::~CaptureStreamer() {
    if (atExitStreamer == this)
        atExitStreamer = nullptr;
    shutDown();
}

void CaptureStreamer::try_connect() {
    // A START while START's own connect waits (the interface keeps painting meanwhile).
    if (connecting)
        return;
    joinTicks();
    const StreamParams params = captureFrame.drawingForm()->streamParams();

    // The connect may wait up to the library's connect time-out; it runs on a thread of its
    // own while this one keeps the windows painted, with a busy cursor and no input taken.
    connecting = true;
    abandonConnect = false;
    QApplication::setOverrideCursor(Qt::WaitCursor);
    bool started = false;
    std::atomic<bool> finished{false};
    std::string error;
    QEventLoop wait;
    std::thread connector([&] {
        started = writer.start(params, &abandonConnect);
        error = writer.lastError();
        finished = true;
        // By name: the queued call is then built inside the toolkit, whose locks hand it over.
        QMetaObject::invokeMethod(&wait, "quit", Qt::QueuedConnection);
    });
    wait.exec(QEventLoop::ExcludeUserInputEvents);
    // The application may be quitting, which ends every event loop: the connect is abandoned.
    if (!finished)
        abandonConnect = true;
    connector.join();
    QApplication::restoreOverrideCursor();
    connecting = false;
    if (abandonConnect) {
        const std::lock_guard<std::mutex> lock(frameMutex);
        writer.stop();
        return;
    }
    if (!started) {
        showFailure(error);
        return;
    }

    captureFrame.setLive(true);
    captureFrame.drawingForm()->setFormMode(0);
    if (!startTicks(error)) {
        {
            const std::lock_guard<std::mutex> lock(frameMutex);
            liveRun = 0;
            writer.stop();
        }
        showFailure(error);
    }
}

bool CaptureStreamer::startTicks(std::string& error) {
    // In place before the threads start: a failing first tick asks this run to stop.
    ticks = std::make_unique<Run>();
    ticks->flags.runningFlag = true;
    auto* state = new TickState;
    state->due.run = ++runs;
    {
        const std::lock_guard<std::mutex> lock(frameMutex);
        liveRun = runs;
    }
    try {
        ticks->worker = std::thread(tickWorkerThread, state, static_cast<ITickHandler*>(this));
        ticks->generator = std::thread(tickGeneratorThread, &ticks->flags, state, tickPeriodMs);
    } catch (const std::system_error& failure) {
        // Without a generator the worker is woken to end, and the state stays ours to free.
        if (ticks->worker.joinable()) {
            {
                const std::lock_guard<std::mutex> lock(state->mutex);
                state->stopRequested = true;
            }
            state->tickRaised.notify_all();
            ticks->worker.join();
        }
        delete state;
        ticks.reset();
        error = std::string("Cannot start the streaming threads: ") + failure.what();
        logLine("CaptureStreamer ", error);
        return false;
    }
    return true;
}

void CaptureStreamer::joinTicks() {
    if (!ticks)
        return;
    ticks->flags.stopFlag = true;
    ticks->worker.join();
    ticks->generator.join();
    ticks.reset();
}

void CaptureStreamer::stop() {
    // Only the quitting application stops while START's connect waits: that connect is
    // abandoned and its stream never starts.
    if (connecting) {
        abandonConnect = true;
        return;
    }
    if (ticks)
        ticks->flags.stopFlag = true;
    {
        const std::lock_guard<std::mutex> lock(frameMutex);
        liveRun = 0;
        writer.stop();
    }
    captureFrame.drawingForm()->setFormMode(2);
}

void CaptureStreamer::shutDown() {
    stop();
    joinTicks();
}

void CaptureStreamer::shutDownAtExit() {
    if (!atExitStreamer)
        return;
    // The display may be gone: the windows are left alone, the stream is ended.
    CaptureStreamer* streamer = atExitStreamer;
    atExitStreamer = nullptr;
    if (streamer->ticks)
        streamer->ticks->flags.stopFlag = true;
    {
        const std::lock_guard<std::mutex> lock(streamer->frameMutex);
        streamer->liveRun = 0;
        streamer->writer.stop();
    }
    streamer->joinTicks();
}

void CaptureStreamer::onTick(const Tick& tick) {
    std::string error;
    {
        const std::lock_guard<std::mutex> lock(frameMutex);
        // A tick still under way when live was switched off belongs to the stopped stream.
        if (tick.run != liveRun)
            return;
        const platform::GrabbedPicture* picture = source.grab();
        if (!picture && !source.unusable())
            return;
        // Nothing changed under the frame: the encoder gets the picture it already has, with
        // this tick's time stamp, so the stream keeps its rate.
        if (picture && (source.unchanged() && writer.holdsPicture()
                            ? writer.repeatPicture(tick.dueMs)
                            : writer.writePicture(picture->data, pixelFormatOf(picture->layout),
                                                  picture->width, picture->height, picture->stride,
                                                  tick.dueMs)))
            return;
        liveRun = 0;
        writer.stop();
        error = picture ? writer.lastError() : source.lastError();
    }
    // The run's generator is asked to stop here; its threads end by themselves.
    ticks->flags.stopFlag = true;
    // The windows belong to the interface thread, and by the time they are reached the user may
    // have started another run, which this failure must leave alone.
    const uint64_t failedRun = tick.run;
    QMetaObject::invokeMethod(
        this,
        [this, error, failedRun] {
            if (failedRun == runs)
                showFailure(error);
        },
        Qt::QueuedConnection);
}

void CaptureStreamer::showFailure(const std::string& error) {
    captureFrame.setLive(false);
    captureFrame.drawingForm()->changeStatus(QString::fromStdString(error), 0);
    captureFrame.drawingForm()->showStartForm();
}
