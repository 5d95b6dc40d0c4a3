// The cross-process lock on POSIX systems: one lock per user, in a directory only that user
// can write. Windows names its mutex without a "Global\" prefix, so there it serialises the
// processes of one session; a per-user lock is the nearest equivalent here, and it leaves
// nothing that another user could replace, remove or hold.
//
// Where: $XDG_RUNTIME_DIR when it is an absolute path to a directory owned by the caller with
// no access for group or others; else /run/user/<uid> under the same conditions; else
// /tmp/qob-<uid>, created mode 0700 and accepted only under the same conditions. The file in it
// is "ZT.XProcess.Lock", opened without following links and without blocking (a FIFO there
// must not hang a call), then checked: a regular file, owned by the caller, writable by nobody
// else. Nothing is ever chmod-ed.
//
// Failing safe: when no directory can be created at all (no writable /tmp, a read-only file
// system), calls run unserialised, as on Windows when the mutex cannot be created. When the
// directory or the file exists but is not safely ours, the call fails instead: running
// unlocked because someone else put something in the way would let them switch the lock off.
//
// Calls take it shared: what keeps a package consistent is the package's own lock, so calls on
// different packages run at once. It still tells fork when no call is in flight, and a build
// that takes it exclusively (older ones did) still excludes the calls of this one.
#include "platform/platform.hpp"
#include "platform/posix_retry.hpp"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace QOB::Platform {
namespace {

constexpr const char* kLockName = "ZT.XProcess.Lock";

// Owned by the caller, a directory, and closed to everybody else.
bool PrivateDirectory(const struct stat& status) noexcept {
    return S_ISDIR(status.st_mode) && status.st_uid == ::geteuid() &&
           (status.st_mode & (S_IRWXG | S_IRWXO)) == 0;
}

// Opens path as a directory without following a link at its last component; -1 with errno.
int OpenDirectory(const std::string& path) noexcept {
    return Retrying(
        [&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); });
}

class ProcessLock {
public:
    ProcessLock() noexcept { InitSync(); }

    // What Acquire found. Unavailable means that the lock cannot be created at all.
    enum class State { Unknown, Ready, Unavailable, Refused };

    // Counts the thread in as a call in flight; the first call in flight takes the lock file,
    // shared: calls on different packages run at once, in threads and in processes, and each
    // package's own lock keeps them apart. Nested calls of a thread only count deeper. On
    // failure nothing is held and problem says why.
    bool Acquire(std::string& problem) noexcept {
        if (t_depth > 0) {
            ++t_depth;
            return true;
        }
        ::pthread_mutex_lock(&mutex_);
        while (forking_) {
            ::pthread_cond_wait(&idle_, &mutex_);
        }
        if (active_ == 0) {
            const char* why = LockFile();
            if (why != nullptr) {
                ::pthread_mutex_unlock(&mutex_);
                try {
                    problem = why;
                    problem += ": ";
                    problem += where_;
                } catch (...) {
                }
                return false;
            }
        }
        ++active_;
        ++t_depth;
        ::pthread_mutex_unlock(&mutex_);
        return true;
    }

    void Release() noexcept {
        if (--t_depth > 0) {
            return;
        }
        ::pthread_mutex_lock(&mutex_);
        if (--active_ == 0) {
            if (fd_ >= 0) {
                ::flock(fd_, LOCK_UN);
            }
            ::pthread_cond_broadcast(&idle_);
        }
        ::pthread_mutex_unlock(&mutex_);
    }

    // fork: the prepare handler waits until no other thread of the parent is inside a call
    // (the forking thread itself may be), and lets no new call start, so the child never
    // starts in the middle of another thread's call.
    void BeforeFork() noexcept {
        ::pthread_mutex_lock(&mutex_);
        while (forking_) {
            ::pthread_cond_wait(&idle_, &mutex_);
        }
        forking_ = true;
        const int mine = t_depth > 0 ? 1 : 0;
        while (active_ > mine) {
            ::pthread_cond_wait(&idle_, &mutex_);
        }
    }
    void AfterForkInParent() noexcept {
        forking_ = false;
        ::pthread_cond_broadcast(&idle_);
        ::pthread_mutex_unlock(&mutex_);
    }
    void AfterForkInChild() noexcept {
        // The inherited descriptors share the parent's open file description and with it
        // the parent's flock: the child must neither unlock it nor rely on it, so it opens a
        // description of its own at its next outermost call.
        if (fd_ >= 0) {
            ::close(fd_);
            fd_ = -1;
        }
        if (dirFd_ >= 0) {
            ::close(dirFd_);
            dirFd_ = -1;
        }
        state_ = State::Unknown;
        // The child has only the forking thread: if it was inside calls it goes on inside
        // them, alone. The mutex and condition start afresh, as the parent's may not be
        // unlocked by another process.
        forking_ = false;
        active_ = t_depth > 0 ? 1 : 0;
        InitSync();
    }

private:
    // nullptr when the lock is held (or cannot exist at all); else what is wrong.
    const char* LockFile() noexcept {
        for (int attempt = 0; attempt < 8; ++attempt) {
            if (state_ == State::Unknown) {
                Open();
            }
            if (state_ == State::Unavailable) {
                state_ = State::Unknown; // a later call may find a place for it
                return nullptr;
            }
            if (state_ == State::Refused) {
                const char* why = refusal_;
                state_ = State::Unknown; // look again next time: the obstacle may be gone
                return why;
            }
            if (Retrying([&] { return ::flock(fd_, LOCK_SH); }) != 0) {
                Reset();
                return "cannot lock the lock file";
            }
            // Someone may have removed or replaced the file between our open and our flock:
            // a lock on a file nobody else can reach excludes nobody.
            struct stat held {};
            struct stat named {};
            if (::fstat(fd_, &held) == 0 &&
                ::fstatat(dirFd_, kLockName, &named, AT_SYMLINK_NOFOLLOW) == 0 &&
                held.st_dev == named.st_dev && held.st_ino == named.st_ino) {
                return nullptr;
            }
            ::flock(fd_, LOCK_UN);
            Reset();
        }
        return "the lock file keeps being replaced";
    }

    void Reset() noexcept {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        if (dirFd_ >= 0) {
            ::close(dirFd_);
        }
        fd_ = dirFd_ = -1;
        state_ = State::Unknown;
    }

    void Refuse(const char* why) noexcept {
        Reset();
        refusal_ = why;
        state_ = State::Refused;
    }

    void Open() noexcept {
        Reset();
        if (!OpenLockDirectory()) {
            return;
        }
        const int fd = Retrying([&] {
            return ::openat(dirFd_, kLockName,
                            O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
        });
        if (fd < 0) {
            if (errno == ELOOP) {
                Refuse("the lock file is a symbolic link");
            } else if (errno == EROFS || errno == ENOSPC || errno == EDQUOT) {
                Reset();
                state_ = State::Unavailable;
            } else {
                Refuse("cannot open the lock file");
            }
            return;
        }
        fd_ = fd;
        struct stat status {};
        if (::fstat(fd_, &status) != 0 || !S_ISREG(status.st_mode)) {
            Refuse("the lock file is not a regular file");
        } else if (status.st_uid != ::geteuid()) {
            Refuse("the lock file belongs to another user");
        } else if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
            Refuse("the lock file is writable by other users");
        } else {
            state_ = State::Ready;
        }
    }

    // Sets dirFd_ and where_; false with state_ set when there is no usable directory.
    bool OpenLockDirectory() noexcept {
        try {
            const std::string uid = std::to_string(::geteuid());
            const char* runtime = std::getenv("XDG_RUNTIME_DIR");
            for (const std::string& candidate :
                 {std::string(runtime != nullptr && runtime[0] == '/' ? runtime : ""),
                  "/run/user/" + uid}) {
                if (candidate.empty()) {
                    continue;
                }
                const int fd = OpenDirectory(candidate);
                struct stat status {};
                if (fd >= 0 && ::fstat(fd, &status) == 0 && PrivateDirectory(status)) {
                    dirFd_ = fd;
                    where_ = candidate + "/" + kLockName;
                    return true;
                }
                if (fd >= 0) {
                    ::close(fd);
                }
            }
            const std::string fallback = "/tmp/qob-" + uid;
            where_ = fallback + "/" + kLockName;
            if (::mkdir(fallback.c_str(), 0700) != 0 && errno != EEXIST) {
                // Nowhere to put a lock at all.
                state_ = State::Unavailable;
                return false;
            }
            // Whoever made it, it must now be ours and closed to others; never trust a
            // name in a shared directory without looking at what it is.
            const int fd = OpenDirectory(fallback);
            struct stat status {};
            if (fd < 0) {
                Refuse(errno == ELOOP || errno == ENOTDIR ? "the lock directory is not a directory"
                                                          : "cannot open the lock directory");
                return false;
            }
            if (::fstat(fd, &status) != 0 || !PrivateDirectory(status)) {
                ::close(fd);
                Refuse("the lock directory is not private to this user");
                return false;
            }
            dirFd_ = fd;
            return true;
        } catch (...) {
            Refuse("out of memory");
            return false;
        }
    }

    void InitSync() noexcept {
        ::pthread_mutex_init(&mutex_, nullptr);
        ::pthread_cond_init(&idle_, nullptr);
    }

    // The calls of this thread in flight, nested ones counted.
    static thread_local int t_depth;

    pthread_mutex_t mutex_;
    pthread_cond_t idle_; // signalled when the last call in flight ends, and after a fork
    // All below guarded by mutex_.
    bool forking_ = false;
    int active_ = 0; // threads inside calls
    int fd_ = -1;
    int dirFd_ = -1;
    State state_ = State::Unknown;
    const char* refusal_ = "";
    std::string where_;
};

// Constructed at load (no file is touched then) and never destroyed, so that exports called
// from other static destructors still find it.
thread_local int ProcessLock::t_depth = 0;

alignas(ProcessLock) unsigned char g_lockStorage[sizeof(ProcessLock)];
ProcessLock* const g_lock = [] {
    auto* lock = new (g_lockStorage) ProcessLock();
    ::pthread_atfork([] { g_lock->BeforeFork(); }, [] { g_lock->AfterForkInParent(); },
                     [] { g_lock->AfterForkInChild(); });
    return lock;
}();

} // namespace

bool ProcessLockAcquire(std::string& problem) noexcept {
    return g_lock->Acquire(problem);
}

void ProcessLockRelease() noexcept {
    g_lock->Release();
}

} // namespace QOB::Platform
