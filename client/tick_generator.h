#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

// One tick: the live run that raised it, and when it fell due, in milliseconds from the
// generator's start (it grows with every tick).
struct Tick {
    uint64_t run = 0;
    int64_t dueMs = 0;
};

// The unit of work run once per tick on the worker thread, while the worker holds the tick
// mutex: it must never wait for the generator.
class ITickHandler {
public:
    virtual void onTick(const Tick& tick) = 0;

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
// once the worker has ended. Where the generator cannot be started, set stopRequested under
// mutex and notify tickRaised: the worker ends and the state is the starter's to delete.
struct TickState {
    std::atomic<bool> workerAlive{true};
    std::atomic<uint32_t> spare{0};
    // Raised under mutex by the generator; the worker also resets it before it takes mutex.
    std::atomic<bool> tickPending{false};
    // The pending tick; guarded by mutex. Its run is set before the threads start.
    Tick due;
    std::mutex mutex;
    // Signalled for every tick, for the stop, and when the worker ends.
    std::condition_variable tickRaised;
    std::atomic<bool> stopRequested{false};
};

// Thread bodies. The generator raises a tick every periodMs milliseconds from its start until
// flags->stopFlag is set; the worker calls handler->onTick() for each tick. Within a period of
// the stop both have ended, whatever the worker was doing: a stopped run leaves no thread.
void tickWorkerThread(TickState* state, ITickHandler* handler);
void tickGeneratorThread(TickFlags* flags, TickState* state, int32_t periodMs);
