#include "scheduler.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <unordered_set>

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace schedules {
namespace {

using control::Nanoseconds;

constexpr std::size_t mostSteps = 100'000;

enum class State { ready, waiting, finished };

struct Task {
    std::atomic<std::uint32_t> turn = 0; // a futex
    State state = State::ready;
    const void* object = nullptr; // mutex, condition or task that it waits for; null while it sleeps
    Nanoseconds deadline = Nanoseconds::max();
    bool timedOut = false;
    pthread_t thread = {};
    void* (*function)(void*) = nullptr;
    void* argument = nullptr;
};

struct Scheduler {
    std::vector<std::unique_ptr<Task>> tasks;
    Task* running = nullptr;
    Decider* decider = nullptr; // null: nothing is decided, and no thread preempted
    Nanoseconds time{0};
    std::size_t steps = 0;
    const StuckHandler* stuck = nullptr;
};

Scheduler* scheduler = nullptr;
constinit thread_local Task* self = nullptr;

std::unordered_set<const void*>& ignored() {
    static std::unordered_set<const void*> objects;
    return objects;
}

// The C++ library's functions for this yield, which is replaced here.
void waitForTurn(Task& task) {
    while (task.turn.load(std::memory_order_acquire) == 0) {
        syscall(SYS_futex, &task.turn, FUTEX_WAIT_PRIVATE, 0, nullptr, nullptr, 0);
    }
    task.turn.store(0, std::memory_order_relaxed);
}

// The threads that can run, the running one first.
std::vector<Task*> readyTasks() {
    std::vector<Task*> ready;
    if (scheduler->running->state == State::ready) {
        ready.push_back(scheduler->running);
    }
    for (const auto& task : scheduler->tasks) {
        if (task->state == State::ready && task.get() != scheduler->running) {
            ready.push_back(task.get());
        }
    }
    return ready;
}

// When every thread waits: go on to the next deadline. Returns false if there is none.
bool advanceTime() {
    Nanoseconds next = Nanoseconds::max();
    for (const auto& task : scheduler->tasks) {
        if (task->state == State::waiting) {
            next = std::min(next, task->deadline);
        }
    }
    if (next == Nanoseconds::max()) {
        return false;
    }
    scheduler->time = std::max(scheduler->time, next);
    for (const auto& task : scheduler->tasks) {
        if (task->state == State::waiting && task->deadline <= scheduler->time) {
            task->state = State::ready;
            task->timedOut = true;
        }
    }
    return true;
}

void stop(const std::string& why) {
    (*scheduler->stuck)(why);
    std::abort(); // the other threads can never run again
}

Task& chooseNext(bool pausing) {
    if (++scheduler->steps > mostSteps) {
        stop("the threads run without end");
    }
    std::vector<Task*> ready = readyTasks();
    if (ready.empty()) {
        if (!advanceTime()) {
            stop("deadlock: every thread waits");
        }
        ready = readyTasks();
    }
    const bool canContinue = ready.front() == scheduler->running && !pausing;
    if (scheduler->decider == nullptr || ready.size() == 1) {
        return *ready.front();
    }
    return *ready.at(scheduler->decider->choose(ready.size(), canContinue));
}

void handOver(Task& next) {
    scheduler->running = &next;
    next.turn.store(1, std::memory_order_release);
    syscall(SYS_futex, &next.turn, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

void giveUpControl(bool pausing = false) {
    Task& own = *self;
    Task& next = chooseNext(pausing);
    if (&next != &own) {
        handOver(next);
        waitForTurn(own);
    }
}

// Wait until another thread wakes up this one, or for the deadline. Returns false after the deadline.
bool waitFor(const void* object, Nanoseconds deadline = Nanoseconds::max()) {
    Task& own = *self;
    own.state = State::waiting;
    own.object = object;
    own.deadline = deadline;
    own.timedOut = false;
    giveUpControl();
    own.object = nullptr;
    own.deadline = Nanoseconds::max();
    return !own.timedOut;
}

void makeReady(Task& task) {
    task.state = State::ready;
}

void wakeAll(const void* object) {
    for (const auto& task : scheduler->tasks) {
        if (task->state == State::waiting && task->object == object) {
            makeReady(*task);
        }
    }
}

Task& taskOf(pthread_t thread) {
    for (const auto& task : scheduler->tasks) {
        if (pthread_equal(task->thread, thread) != 0) {
            return *task;
        }
    }
    stop("a thread is joined or canceled that was not started here");
    std::abort();
}

// Also when the thread is canceled: the library's threads are.
struct End {
    explicit End(Task& ending)
        : task(ending) {}
    ~End() {
        task.state = State::finished;
        wakeAll(&task);
        Task& next = chooseNext(false);
        self = nullptr;
        handOver(next);
    }
    End(const End&) = delete;
    End& operator=(const End&) = delete;
    Task& task;
};

void* runTask(void* argument) {
    Task& task = *static_cast<Task*>(argument);
    waitForTurn(task);
    self = &task;
    const End end(task);
    return task.function(task.argument);
}

} // namespace

void runControlled(const std::function<void()>& body, const StuckHandler& stuck) {
    Scheduler own;
    own.stuck = &stuck;
    own.tasks.push_back(std::make_unique<Task>());
    own.running = own.tasks.front().get();
    own.running->thread = pthread_self();
    scheduler = &own;
    self = own.running;
    body();
    const bool allEnded = std::ranges::all_of(
        own.tasks, [](const auto& task) { return task.get() == self || task->state == State::finished; });
    if (!allEnded) {
        stop("threads are left");
    }
    self = nullptr;
    scheduler = nullptr;
}

void explore(Decider& decider, const std::vector<std::function<void()>>& bodies) {
    std::vector<pthread_t> threads(bodies.size());
    const auto call = [](void* body) -> void* {
        (*static_cast<const std::function<void()>*>(body))();
        return nullptr;
    };
    for (std::size_t i = 0; i < bodies.size(); ++i) {
        control::create(&threads[i], nullptr, call, const_cast<std::function<void()>*>(&bodies[i]));
    }
    scheduler->decider = &decider;
    for (const pthread_t thread : threads) {
        control::join(thread, nullptr);
    }
    scheduler->decider = nullptr;
}

void yield() {
    if (control::isControlled()) {
        giveUpControl();
    }
}

void pause() {
    if (control::isControlled()) {
        giveUpControl(true);
    }
}

// They all run before this thread's deadline.
void letOthersRun() {
    waitFor(nullptr, scheduler->time);
}

void ignore(const void* object) {
    ignored().insert(object);
}

namespace control {

bool isControlled() {
    return self != nullptr;
}

bool isIgnored(const void* object) {
    return ignored().contains(object);
}

Nanoseconds now() {
    return scheduler->time;
}

void lock(pthread_mutex_t* mutex) {
    yield();
    while (real::tryLock(mutex) != 0) {
        waitFor(mutex);
    }
}

int tryLock(pthread_mutex_t* mutex) {
    yield();
    return real::tryLock(mutex);
}

int unlock(pthread_mutex_t* mutex) {
    const int result = real::unlock(mutex);
    wakeAll(mutex);
    yield();
    return result;
}

int wait(pthread_cond_t* condition, pthread_mutex_t* mutex, Nanoseconds deadline) {
    real::unlock(mutex);
    wakeAll(mutex);
    const bool signaled = waitFor(condition, deadline);
    while (real::tryLock(mutex) != 0) {
        waitFor(mutex);
    }
    return signaled ? 0 : ETIMEDOUT;
}

void wake(pthread_cond_t* condition, bool all) {
    for (const auto& task : scheduler->tasks) {
        if (task->state == State::waiting && task->object == condition) {
            makeReady(*task);
            if (!all) {
                break;
            }
        }
    }
    yield();
}

void sleepUntil(Nanoseconds deadline) {
    waitFor(nullptr, deadline);
}

int create(pthread_t* thread, const pthread_attr_t* attributes, void* (*function)(void*), void* argument) {
    scheduler->tasks.push_back(std::make_unique<Task>());
    Task& task = *scheduler->tasks.back();
    task.function = function;
    task.argument = argument;
    const int result = real::create(&task.thread, attributes, runTask, &task);
    if (result != 0) {
        scheduler->tasks.pop_back();
        return result;
    }
    *thread = task.thread;
    yield();
    return 0;
}

int join(pthread_t thread, void** result) {
    Task& task = taskOf(thread);
    while (task.state != State::finished) {
        waitFor(&task);
    }
    task.thread = {}; // the next thread may have the same ID
    return real::join(thread, result);
}

// The thread ends when it looks: in its sleep at once.
int cancel(pthread_t thread) {
    Task& task = taskOf(thread);
    const int result = real::cancel(thread);
    if (task.state == State::waiting && task.object == nullptr) {
        makeReady(task);
    }
    yield();
    return result;
}

} // namespace control
} // namespace schedules
