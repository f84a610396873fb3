// Probes the files named on the command line and prints one line each.
#include <MolvaneAV/AvGlobals.h>
#include <MolvaneAV/MediaInfo.h>
#include <MolvaneAV/MediaReader.h>

#include <cstdio>
#include <memory>

int main(int argc, char** argv)
{
    if (!AvGlobals::IsImageFormat(QStringLiteral("PNG")))
        return 3;
    int status = 0;
    for (int i = 1; i < argc; ++i) {
        auto info = std::make_shared<MediaInfo>(QString::fromLocal8Bit(argv[i]));
        if (!MediaReader::ParseMedia(info)) {
            status = 1;
            continue;
        }
        std::printf("%s: %s, %d video, %d audio\n", argv[i], qPrintable(info->GetDurationAsString()),
                    info->GetNumVideoStreams(), info->GetNumAudioStreams());
    }
    return status;
}
