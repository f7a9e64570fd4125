// Launch rate of /bin/true: CTask (launch, then wait) against bare
// posix_spawn + waitpid and fork + execve + waitpid, in one run.
//
// Also shown: a CTask subclass, which gets a full fork instead of the
// vfork-style start of CTask itself, and a CTask2, which opens a pipe and a
// pseudo-terminal per launch and reads the output. Rates are launches per
// second of wall time ("items_per_second").
#include <cstdio>
#include <cstdlib>

#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <quillcore/process/CTask.h>
#include <quillcore/process/CTask2.h>

extern char** environ;

namespace {

constexpr const char* kProgram = "/bin/true";

void checkStatus(benchmark::State& state, int status) {
    if (status != 0) state.SkipWithError("the child failed");
}

void BM_PosixSpawnWaitpid(benchmark::State& state) {
    char* const args[] = {const_cast<char*>(kProgram), nullptr};
    for (auto _ : state) {
        pid_t pid = 0;
        if (posix_spawn(&pid, kProgram, nullptr, nullptr, args, environ) != 0) {
            state.SkipWithError("posix_spawn failed");
            break;
        }
        int status = 0;
        waitpid(pid, &status, 0);
        checkStatus(state, status);
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_ForkExecWaitpid(benchmark::State& state) {
    char* const args[] = {const_cast<char*>(kProgram), nullptr};
    for (auto _ : state) {
        const pid_t pid = fork();
        if (pid == 0) {
            execve(kProgram, args, environ);
            _exit(127);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        checkStatus(state, status);
    }
    state.SetItemsProcessed(state.iterations());
}

template <class Task>
void launchAndWait(benchmark::State& state) {
    for (auto _ : state) {
        Task task(kProgram, nullptr, nullptr, nullptr);
        if (task.launch() != 0) {
            state.SkipWithError("launch failed");
            break;
        }
        checkStatus(state, task.waitForTask());
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_CTaskLaunchWait(benchmark::State& state) { launchAndWait<quill::CTask>(state); }

// Any subclass of CTask starts its child with a full fork.
struct CForkedTask final : quill::CTask {
    using CTask::CTask;
};

void BM_CTaskSubclassLaunchWait(benchmark::State& state) { launchAndWait<CForkedTask>(state); }

void BM_CTask2LaunchOutputWait(benchmark::State& state) {
    for (auto _ : state) {
        quill::CTask2 task(kProgram, static_cast<const char* const*>(nullptr));
        if (task.launch() != 0) {
            state.SkipWithError("launch failed");
            break;
        }
        benchmark::DoNotOptimize(task.getTaskOutput());
        checkStatus(state, task.waitForTask());
    }
    state.SetItemsProcessed(state.iterations());
}

}  // namespace

BENCHMARK(BM_PosixSpawnWaitpid)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_ForkExecWaitpid)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_CTaskLaunchWait)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_CTaskSubclassLaunchWait)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_CTask2LaunchOutputWait)->UseRealTime()->MinTime(2.0);

BENCHMARK_MAIN();
