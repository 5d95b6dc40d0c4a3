// POSIX implementation of the platform interface.
#include "platform/platform.hpp"

#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <new>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace QOB::Platform {
namespace {

// The machine-wide lock: an in-process recursive mutex, and at the outermost level of a
// thread's nesting an exclusive flock on one well-known file. The kernel drops the flock
// when its holder dies, so a killed holder never blocks the next caller.
class ProcessLock {
public:
    ProcessLock() noexcept { Open(); }

    void Acquire() noexcept {
        mutex_.lock();
        if (depth_++ > 0) {
            return;
        }
        if (owner_ != ::getpid()) {
            // A forked child shares the parent's open file description, and with it the
            // flock: give the child a description of its own.
            if (fd_ >= 0) {
                ::close(fd_);
            }
            Open();
        }
        if (fd_ >= 0) {
            while (::flock(fd_, LOCK_EX) == -1 && errno == EINTR) {
            }
        }
    }

    void Release() noexcept {
        if (--depth_ == 0 && fd_ >= 0) {
            ::flock(fd_, LOCK_UN);
        }
        mutex_.unlock();
    }

private:
    void Open() noexcept {
        owner_ = ::getpid();
        const char* path = "/tmp/ZT.XProcess.Lock";
        fd_ = ::open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        if (fd_ >= 0) {
            ::fchmod(fd_, 0666); // beat the umask: every user shares this file
        } else {
            // Created by another user without write access for us: flock needs no write.
            fd_ = ::open(path, O_RDONLY | O_CLOEXEC);
        }
    }

    std::recursive_mutex mutex_;
    int fd_ = -1;
    int depth_ = 0; // guarded by mutex_
    pid_t owner_ = 0;
};

// Constructed at load and never destroyed, so that exports called from other static
// destructors still find it.
alignas(ProcessLock) unsigned char g_lockStorage[sizeof(ProcessLock)];
ProcessLock* const g_lock = new (g_lockStorage) ProcessLock();

} // namespace

void ProcessLockAcquire() noexcept { g_lock->Acquire(); }
void ProcessLockRelease() noexcept { g_lock->Release(); }

} // namespace QOB::Platform
