#include "tick_generator.h"

#include "logfile.h"
#include "platform/crashstack.h"

#include <chrono>
#include <thread>

namespace {

int64_t millisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() -
                                                                 start)
        .count();
}

void sleepMilliseconds(int64_t milliseconds) {
    if (milliseconds > 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

constexpr int64_t workerPollMs = 100;

} // namespace

void tickWorkerThread(TickState* state, ITickHandler* handler) {
    platform::prepareThreadForCrashes();
    state->stopRequested = false;
    state->tickPending = false;
    std::unique_lock<std::mutex> lock(state->mutex);
    if (!state->stopRequested) {
        do {
            state->tickRaised.wait(lock, [state] { return state->tickPending.load(); });
            handler->onTick(state->dueMs);
            state->tickPending = false;
        } while (!state->stopRequested);
    }
    logLine("before unlock");
    logLine("end unlock\nWorker::thread end");
    state->workerAlive = false;
}

void tickGeneratorThread(TickFlags* flags, TickState* state, int32_t periodMs) {
    platform::prepareThreadForCrashes();
    const auto start = std::chrono::steady_clock::now();
    int64_t next = 0;
    while (!flags->stopFlag) {
        int64_t remaining = next - millisecondsSince(start);
        if (remaining < 1) {
            {
                std::lock_guard<std::mutex> lock(state->mutex);
                state->tickPending = true;
                state->dueMs = next;
            }
            state->tickRaised.notify_one();
            next += periodMs;
            remaining = next - millisecondsSince(start);
            if (remaining < 1)
                continue; // behind schedule: raise the next tick at once
        }
        // Waking a millisecond early and spinning through the last one keeps the beat exact.
        sleepMilliseconds(remaining - 1);
    }
    flags->runningFlag = false;
    state->stopRequested = true;
    state->spare = 0;
    while (state->workerAlive)
        sleepMilliseconds(workerPollMs);
    {
        // The worker clears workerAlive while it still holds the mutex; taking the mutex once
        // more makes sure it has let go before the mutex is destroyed.
        std::lock_guard<std::mutex> lock(state->mutex);
    }
    delete state;
}
