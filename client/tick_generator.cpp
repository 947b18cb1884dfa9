#include "tick_generator.h"

#include "logfile.h"
#include "platform/crashstack.h"
#include "platform/tickwait.h"

#include <chrono>

void tickWorkerThread(TickState* state, ITickHandler* handler) {
    platform::prepareThreadForCrashes();
    // The state is born with no tick pending and no stop requested; resetting them here would
    // undo a stop that came before this thread got going.
    std::unique_lock<std::mutex> lock(state->mutex);
    // The stop wakes a worker that waits for a tick, so that it ends with its run.
    while (!state->stopRequested) {
        state->tickRaised.wait(
            lock, [state] { return state->tickPending.load() || state->stopRequested.load(); });
        if (state->tickPending)
            handler->onTick(state->due);
        state->tickPending = false;
    }
    logLine("before unlock");
    logLine("end unlock\nWorker::thread end");
    state->workerAlive = false;
    state->tickRaised.notify_all();
}

void tickGeneratorThread(TickFlags* flags, TickState* state, int32_t periodMs) {
    platform::prepareThreadForCrashes();
    const auto start = std::chrono::steady_clock::now();
    int64_t next = 0;
    while (!flags->stopFlag) {
        const auto due = start + std::chrono::milliseconds(next);
        if (std::chrono::steady_clock::now() < due) {
            platform::waitUntil(due);
            continue;
        }
        {
            std::lock_guard<std::mutex> lock(state->mutex);
            state->tickPending = true;
            state->due.dueMs = next;
        }
        state->tickRaised.notify_one();
        // Behind schedule, the next tick is raised at once.
        next += periodMs;
    }
    flags->runningFlag = false;
    // Set before the mutex is taken: the worker may hold it through a tick that ends only once
    // it sees the stop.
    state->stopRequested = true;
    state->spare = 0;
    {
        // Notified under the mutex, so that a worker between its look at the flag and its wait
        // cannot miss the wake-up.
        std::unique_lock<std::mutex> lock(state->mutex);
        state->tickRaised.notify_all();
        // The worker clears workerAlive while it still holds the mutex: once this wait has the
        // mutex back, the worker has let go of it for good and the state can go.
        state->tickRaised.wait(lock, [state] { return !state->workerAlive.load(); });
    }
    delete state;
}
