#include <MolvaneAV/AvGlobals.h>

extern "C" {
#include <libavutil/time.h>
}

#include <QStringList>

#ifdef _WIN32
#include <windows.h>
#endif

int AvGlobals::maxAudioOutputChannels = 0;

namespace {

// Built when the library is loaded, destroyed when it is unloaded, read-only
// in between, so any thread may look names up without a lock.
const QStringList imageFormats = {
    QStringLiteral("dpx"), QStringLiteral("exr"), QStringLiteral("mjpeg"),
    QStringLiteral("png"), QStringLiteral("targa"), QStringLiteral("tiff"),
};

} // namespace

int64_t AvGlobals::GetTime()
{
    return av_gettime();
}

bool AvGlobals::IsImageFormat(const QString& name)
{
    const QString lower = name.toLower();
    for (const QString& format : imageFormats) {
        if (lower == format)
            return true;
    }
    return false;
}

AvGlobals& AvGlobals::operator=(const AvGlobals&)
{
    return *this;
}

#ifdef _WIN32
BOOL APIENTRY DllMain(HMODULE module, DWORD reason, LPVOID)
{
    // The library keeps no per-thread state.
    if (reason == DLL_PROCESS_ATTACH)
        DisableThreadLibraryCalls(module);
    return TRUE;
}
#endif
