// zs_signal: the handler only writes the signal number into a self-pipe; the loop thread
// of the running zs_start reads it and runs the callback there.
#include "zservice/internal.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>

namespace {

using Callback = void (*)(int);

std::atomic<Callback> callbacks[NSIG];
std::atomic<int> pipeRead{-1};
std::atomic<int> pipeWrite{-1};
std::atomic<pid_t> pipeOwner{0};
std::mutex setupMutex;

void onSignal(int signo)
{
    const int savedErrno = errno;
    if (getpid() != pipeOwner.load()) {
        // A forked child that never ran a loop of its own: the pipe belongs to the
        // parent, so take the default action instead of waking the parent's loop.
        signal(signo, SIG_DFL);
        raise(signo);
    } else {
        const unsigned char byte = static_cast<unsigned char>(signo);
        if (write(pipeWrite.load(), &byte, 1) < 0) {
            // Pipe full: this delivery is dropped, earlier ones are still pending.
        }
    }
    errno = savedErrno;
}

// Creates the pipe on first use, and anew in a forked child (the inherited one is the
// parent's). Caller holds setupMutex.
bool ensurePipe()
{
    if (pipeOwner.load() == getpid() && pipeRead.load() >= 0)
        return true;
    int fds[2];
    if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0)
        return false;
    const int oldRead = pipeRead.exchange(fds[0]);
    const int oldWrite = pipeWrite.exchange(fds[1]);
    pipeOwner.store(getpid());
    if (oldRead >= 0)
        close(oldRead);
    if (oldWrite >= 0)
        close(oldWrite);
    return true;
}

}  // namespace

namespace Orvex::Bus {

int signalPipeForLoop()
{
    std::lock_guard<std::mutex> lock(setupMutex);
    return ensurePipe() ? pipeRead.load() : -1;
}

void runPendingSignals(int readFd)
{
    unsigned char bytes[64];
    ssize_t n;
    while ((n = read(readFd, bytes, sizeof(bytes))) > 0) {
        for (ssize_t i = 0; i < n; ++i) {
            if (Callback callback = callbacks[bytes[i] % NSIG].load())
                callback(bytes[i]);
        }
    }
}

}  // namespace Orvex::Bus

int zs_signal(int signo, void (*callback)(int))
{
    if (signo <= 0 || signo >= NSIG || signo == SIGKILL || signo == SIGSTOP || !callback)
        return -1;
    std::lock_guard<std::mutex> lock(setupMutex);
    if (!ensurePipe())
        return -1;
    callbacks[signo].store(callback);
    struct sigaction action{};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    return sigaction(signo, &action, nullptr) == 0 ? 0 : -1;
}
