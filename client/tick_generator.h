#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

// The unit of work run once per tick on the worker thread, while the worker holds the tick
// mutex: it must never wait for the generator. dueMs is when the tick fell due, in
// milliseconds from the generator's start; it grows with every tick.
class ITickHandler {
public:
    virtual void onTick(int64_t dueMs) = 0;

protected:
    ~ITickHandler() = default;
};

// The owner's pair of flags: anyone sets stopFlag to ask for a stop; the generator clears
// runningFlag as it leaves its loop.
struct TickFlags {
    std::atomic<bool> stopFlag{false};
    std::atomic<bool> runningFlag{false};
};

// The block the generator and the worker share. Allocate it with new and workerAlive true,
// start the worker, then the generator; from then on the generator owns it and deletes it
// once the worker has ended.
struct TickState {
    std::atomic<bool> workerAlive{true};
    std::atomic<uint32_t> spare{0};
    // Raised under mutex by the generator; the worker also resets it before it takes mutex.
    std::atomic<bool> tickPending{false};
    // The due time of the pending tick; guarded by mutex.
    int64_t dueMs = 0;
    std::mutex mutex;
    std::condition_variable tickRaised;
    std::atomic<bool> stopRequested{false};
};

// Thread bodies. The generator raises a tick every periodMs milliseconds from its start until
// flags->stopFlag is set; the worker calls handler->onTick() for each tick. A worker that is
// waiting for a tick when the generator stops keeps waiting, and its generator keeps the
// state alive for it: such a pair lingers until the process ends.
void tickWorkerThread(TickState* state, ITickHandler* handler);
void tickGeneratorThread(TickFlags* flags, TickState* state, int32_t periodMs);
