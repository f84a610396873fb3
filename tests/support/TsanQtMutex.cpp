// For test programs of the ThreadSanitizer build only. QMutex::lock and
// unlock live in libQt5Core, compiled without instrumentation, so the
// sanitizer never sees a QMutex being taken and reports every section two
// threads run under one as a data race. Defined in the executable, these
// two stand in front of Qt's own (the executable's symbols are found
// first), tell the sanitizer about each lock and unlock, and hand on to Qt.

#include <QMutex>

#include <sanitizer/tsan_interface.h>

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

namespace {

using MutexCall = void (*)(QMutex*);

MutexCall QtOwn(const char* symbol)
{
    void* address = dlsym(RTLD_NEXT, symbol);
    if (address == nullptr) {
        std::fprintf(stderr, "TsanQtMutex: %s not found after the test program\n", symbol);
        std::abort();
    }
    return reinterpret_cast<MutexCall>(address);
}

} // namespace

void QMutex::lock() QT_MUTEX_LOCK_NOEXCEPT
{
    static const MutexCall qtLock = QtOwn("_ZN6QMutex4lockEv");
    __tsan_mutex_pre_lock(this, 0);
    qtLock(this);
    __tsan_mutex_post_lock(this, 0, 0);
}

void QMutex::unlock() noexcept
{
    static const MutexCall qtUnlock = QtOwn("_ZN6QMutex6unlockEv");
    __tsan_mutex_pre_unlock(this, 0);
    qtUnlock(this);
    __tsan_mutex_post_unlock(this, 0);
}

// FFmpeg's frame-threaded decoders synchronise their worker threads with
// atomics inside libavcodec, built without instrumentation: what those
// threads allocate and free looks unsynchronised to the sanitizer.
extern "C" const char* __tsan_default_suppressions()
{
    return "race:libavcodec.so\nrace:libavutil.so\n";
}
