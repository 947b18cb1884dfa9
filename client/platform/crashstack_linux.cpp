#include "crashstack.h"

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <sys/mman.h>
#include <unistd.h>

namespace platform {

namespace {

// A stack overflow leaves no stack to report on: the handler runs on a stack of the thread's
// own, given back when the thread ends.
class AlternateStack {
public:
    AlternateStack()
        : size(std::max<std::size_t>(64 * 1024, static_cast<std::size_t>(sysconf(_SC_SIGSTKSZ)))),
          memory(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
        if (memory == MAP_FAILED)
            return;
        stack_t stack{};
        stack.ss_sp = memory;
        stack.ss_size = size;
        sigaltstack(&stack, nullptr);
    }
    AlternateStack(const AlternateStack&) = delete;
    AlternateStack& operator=(const AlternateStack&) = delete;
    ~AlternateStack() {
        if (memory == MAP_FAILED)
            return;
        stack_t off{};
        off.ss_flags = SS_DISABLE;
        sigaltstack(&off, nullptr);
        munmap(memory, size);
    }

private:
    std::size_t size;
    void* memory;
};

} // namespace

void prepareThreadForCrashes() {
    thread_local AlternateStack stack;
}

} // namespace platform
