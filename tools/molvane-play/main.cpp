// molvane-play: plays a file through the player engine without a window and
// writes what a viewer would have seen and heard.
//
//   molvane-play [FILE] [--out DIR] [--start S] [--duration D] [--speed X]
//                [--volume V] [--cache-mb N] [--seek-every S] [--realtime] [--image]
//   molvane-play --window FILE [--start S] [--speed X] [--volume V] [--cache-mb N]
//                [--image] [--no-sound] [--duration D] [--out DIR]
//
// Without FILE it plays a sample it writes on first use. Into --out (default:
// a folder named after the file) go audio.wav (what the audio device
// received), ticks.csv (one line per display tick), frames.png (16 frames
// shown at even intervals, or the waveform of a file without video) and
// summary.json, which also goes to stdout. Exits 1 when the file cannot be
// played; the library's message is on stderr.

#include "PlayOutputs.h"
#include "WindowMode.h"

#include <MolvaneAV/Player.h>

#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QGuiApplication>
#include <QImage>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTextStream>
#include <QThread>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <random>
#include <set>
#include <string>
#include <vector>

namespace {

constexpr int64_t kSecond = 1000000;

// A moving test picture with a frame counter and a tone, made with the
// ffmpeg program the first time it is needed.
QString BuiltInSample()
{
    const QString dir = QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) + "/molvane";
    const QString path = dir + "/sample.mp4";
    if (QFileInfo::exists(path))
        return path;
    QDir().mkpath(dir);
    QProcess ffmpeg;
    ffmpeg.start("ffmpeg", {"-v", "error", "-nostdin", "-y", "-f", "lavfi", "-i",
                            "testsrc=size=640x360:rate=25:duration=10", "-f", "lavfi", "-i",
                            "sine=frequency=440:sample_rate=48000:duration=10", "-c:v", "libx264", "-g", "50",
                            "-bf", "2", "-c:a", "aac", "-fflags", "+bitexact", "-f", "mp4", path + ".part"});
    if (!ffmpeg.waitForFinished(300000) || ffmpeg.exitCode() != 0 || !QFile::rename(path + ".part", path)) {
        std::fprintf(stderr, "molvane-play: cannot write the sample with ffmpeg: %s\n",
                     ffmpeg.readAllStandardError().constData());
        return QString();
    }
    return path;
}

// A small copy of a shown picture for the contact sheet, so that the sheet
// does not keep sixteen full pictures alive to the end.
std::shared_ptr<DecodedVideoFrame> Thumbnail(const DecodedVideoFrame& frame)
{
    if (frame.data == nullptr || frame.width < 1 || frame.height < 1 || frame.status != 0)
        return std::make_shared<DecodedVideoFrame>();
    const QImage picture(frame.data, frame.width, frame.height, (3 * frame.width + 3) / 4 * 4, QImage::Format_RGB888);
    // Smooth scaling can change the format: back to the records' own.
    const QImage small = (picture.width() > 320 ? picture.scaledToWidth(320, Qt::SmoothTransformation) : picture)
                             .convertToFormat(QImage::Format_RGB888);
    return std::make_shared<DecodedVideoFrame>(small.constBits(), int(small.sizeInBytes()), small.width(),
                                               small.height(), frame.startTime, frame.frameRate, frame.rotation,
                                               frame.isLinearColorSpace);
}

// Peak resident memory of this process, from the kernel.
double PeakResidentBytes()
{
    QFile status("/proc/self/status");
    if (status.open(QIODevice::ReadOnly)) {
        for (const QByteArray& line : status.readAll().split('\n')) {
            if (line.startsWith("VmHWM:"))
                return line.mid(6).trimmed().split(' ').value(0).toDouble() * 1024.0;
        }
    }
    return 0.0;
}

double Percentile(std::vector<double> values, double share)
{
    if (values.empty())
        return 0.0;
    std::sort(values.begin(), values.end());
    return values[size_t(share * double(values.size() - 1) + 0.5)];
}

void ShowProgress(double done)
{
    const int width = 40, filled = int(std::lround(std::clamp(done, 0.0, 1.0) * width));
    std::fprintf(stderr, "\r[%s%s] %3d%%", std::string(size_t(filled), '#').c_str(),
                 std::string(size_t(width - filled), '.').c_str(), int(std::lround(done * 100)));
}

} // namespace

// Qt's offscreen platform keeps its screen objects to the end of the process,
// and libdbus (which Qt's desktop integration loads) a buffer; those are
// theirs, not leaks of ours, and would fail every sanitized run.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions()
{
    return "leak:libqoffscreen.so\nleak:QScreen::QScreen\nleak:QPlatformScreen::QPlatformScreen\nleak:libdbus-1.so\n";
}
// Their list on stderr would bury the program's own one-line messages.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_options()
{
    return "print_suppressions=0";
}

int main(int argc, char** argv)
{
    const bool window = std::any_of(argv + 1, argv + argc, [](const char* arg) { return qstrcmp(arg, "--window") == 0; });
    if (!window && qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") &&
        qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen"); // text on the contact sheet needs fonts, not a screen
    if (qEnvironmentVariableIsEmpty("XDG_RUNTIME_DIR")) {
        // Qt warns without one; a private folder of our own will do.
        const QByteArray runtime = QDir::tempPath().toUtf8() + "/molvane-runtime-" + QByteArray::number(getuid());
        mkdir(runtime.constData(), 0700);
        qputenv("XDG_RUNTIME_DIR", runtime);
    }
    if (window)
        return RunWindow(argc, argv);
    QGuiApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addPositionalArgument("file", "Media file; without it, a built-in sample.");
    parser.addOptions({{"out", "Output folder.", "dir"},
                       {"start", "Start position in seconds.", "s"},
                       {"duration", "Seconds of play (default: to the end; 5 for --image).", "d"},
                       {"speed", "Play speed; negative plays backwards.", "x", "1"},
                       {"volume", "Volume factor.", "v", "1"},
                       {"cache-mb", "Video cache budget in MiB.", "n", "512"},
                       {"seek-every", "Jump to a random position every S seconds of play.", "s"},
                       {"realtime", "Pace ticks by the wall clock; count late ones."},
                       {"image", "Play the file as a still."}});
    parser.addHelpOption();
    parser.process(app);

    QString file = parser.positionalArguments().value(0);
    if (file.isEmpty() && (file = BuiltInSample()).isEmpty())
        return 1;
    const bool isImage = parser.isSet("image");
    bool speedIsNumber = false;
    const double speed = parser.value("speed").toDouble(&speedIsNumber);
    if (!speedIsNumber || (speed == 0.0 && !parser.isSet("duration"))) {
        std::fprintf(stderr, "molvane-play: --speed takes a number; 0 needs --duration\n");
        return 2;
    }
    const double volume = parser.value("volume").toDouble();
    const int64_t budget = parser.value("cache-mb").toLongLong() << 20;
    const QString out = parser.isSet("out") ? parser.value("out") : QFileInfo(file).completeBaseName();

    // What the libraries themselves take, before a file adds its pictures.
    const double residentBeforeOpen = PeakResidentBytes();
    molvane::Player player(budget);
    const int64_t requested = parser.isSet("duration") ? int64_t(parser.value("duration").toDouble() * kSecond)
                              : isImage                ? 5 * kSecond
                                                       : -1;
    if (!player.Open(file, isImage, requested > 0 ? requested : 5 * kSecond))
        return 1;
    if (!QDir().mkpath(out)) {
        std::fprintf(stderr, "molvane-play: cannot create %s\n", qPrintable(out));
        return 1;
    }

    const int64_t end = player.Duration();
    // A stream that does not say how long it is plays until its end is found.
    const bool openEnded = end <= 0 && requested <= 0;
    int64_t start = parser.isSet("start") ? int64_t(parser.value("start").toDouble() * kSecond)
                    : speed < 0           ? end - 1
                                          : 0;
    start = std::clamp<int64_t>(start, 0, std::max<int64_t>(0, end - 1));
    // The direction first: a jump made while playing backwards keeps the
    // pictures before its target.
    player.SetSpeed(speed);
    player.Seek(start);
    // Like any player, show the first picture before the clock starts. By
    // then a video that yields no picture at all is known.
    const bool hadVideo = player.HasVideo();
    player.WaitFrameAt(player.Position());
    if (hadVideo && !player.HasVideo()) {
        if (!player.HasAudio()) {
            std::fprintf(stderr, "molvane-play: no picture of %s could be decoded\n", qPrintable(file));
            return 1;
        }
        std::fprintf(stderr, "molvane-play: no picture of %s could be decoded; playing its sound\n",
                     qPrintable(file));
    }
    // Sound alone: by its first sound, or by the end of a file that has
    // none, the engine knows whether there is any.
    if (!player.HasVideo())
        player.WaitAudio(player.Position() + 1);
    if (!player.HasVideo() && !player.HasAudio()) {
        std::fprintf(stderr, "molvane-play: no sound of %s could be decoded\n", qPrintable(file));
        return 1;
    }
    const int64_t tick = player.HasVideo() ? player.FrameStep() : 40000; // wall time per display tick
    const int64_t span = requested > 0 ? requested : int64_t(double(speed < 0 ? start : end - start) / std::abs(speed));
    const int64_t ticks = openEnded && speed > 0 ? std::numeric_limits<int64_t>::max()
                                                 : std::max<int64_t>(1, (span + tick - 1) / tick);
    const int64_t seekEvery = parser.isSet("seek-every") ? int64_t(parser.value("seek-every").toDouble() * kSecond) : 0;
    const bool realtime = parser.isSet("realtime");

    const int channels = std::max(1, player.AudioChannels());
    const int rate = player.HasAudio() ? player.AudioSampleRate() : 48000;
    WavWriter wav;
    QString error;
    if (!wav.Open(out + "/audio.wav", channels, rate, &error)) {
        std::fprintf(stderr, "molvane-play: %s\n", qPrintable(error));
        return 1;
    }
    QFile csv(out + "/ticks.csv");
    if (!csv.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        std::fprintf(stderr, "molvane-play: cannot write %s\n", qPrintable(csv.fileName()));
        return 1;
    }
    QTextStream ticksOut(&csv);
    ticksOut << "play_time_us,frame_start_us,late\n";

    std::mt19937_64 random(1);
    std::vector<int16_t> samples;
    Envelope heard(channels); // the waveform of a file without video
    std::set<int64_t> shownStarts;
    QList<std::pair<int64_t, std::shared_ptr<DecodedVideoFrame>>> sheet;
    std::shared_ptr<DecodedVideoFrame> shown;
    int64_t late = 0, silentBuffers = 0, samplesWritten = 0;
    const bool progress = isatty(STDERR_FILENO);
    QElapsedTimer wall;
    wall.start();
    std::vector<double> seekMillis; // from a jump to its frame, in the virtual clock's mode
    int64_t i = 0;
    for (; i < ticks; ++i) {
        QElapsedTimer jump;
        if (seekEvery > 0 && i > 0 && i * tick % seekEvery < tick) {
            jump.start();
            // Within the length known by now: a stream without one finds it as it plays.
            player.Seek(int64_t(random() % uint64_t(std::max<int64_t>(1, player.Duration()))));
        }
        const int64_t now = player.Position();
        std::shared_ptr<DecodedVideoFrame> frame;
        bool settled = true;
        if (realtime) {
            const int64_t due = i * tick;
            if (wall.nsecsElapsed() / 1000 < due)
                QThread::usleep(unsigned(due - wall.nsecsElapsed() / 1000));
            // A display cannot wait: it shows the newest picture while the
            // one after it, which may start before now, is not decoded yet.
            frame = player.FrameAt(now, &settled);
        } else {
            frame = player.WaitFrameAt(now);
            if (jump.isValid())
                seekMillis.push_back(double(jump.nsecsElapsed()) / 1e6);
            player.WaitAudio(now + int64_t(std::abs(speed) * double(tick)) + kSecond / 10);
        }
        const bool isLate = player.HasVideo() && (!frame || !settled);
        if (frame)
            shown = frame;
        late += isLate ? 1 : 0;
        ticksOut << now << ',' << (shown ? shown->startTime : -1) << ',' << (isLate ? 1 : 0) << '\n';
        if (shown)
            shownStarts.insert(shown->startTime);
        if (shown && sheet.size() < 16 && (openEnded ? i % 25 == 0 : i >= sheet.size() * ticks / 16))
            sheet.append({now, Thumbnail(*shown)});

        // The audio device takes one tick of wall time per tick.
        const int64_t due = (i + 1) * tick * rate / kSecond;
        const int frames = int(due - samplesWritten);
        samples.resize(size_t(frames) * channels);
        if (frames > 0) {
            // Backwards or standing, silence is what the device should get.
            silentBuffers += player.FillAudio(samples.data(), frames, volume) || !player.HasAudio() || speed <= 0.0 ? 0 : 1;
            wav.Write(samples.data(), frames);
            if (!player.HasVideo())
                heard.Add(samples.data(), frames);
            samplesWritten = due;
        }
        // Jumping, as many ticks as the length found holds, as for a file
        // that says how long it is.
        if (openEnded && player.Duration() > 0 &&
            (now >= player.Duration() - 1 || (seekEvery > 0 && (i + 1) * tick >= player.Duration()))) {
            ++i;
            break;
        }
        player.Advance(tick);
        if (progress && !openEnded && i % 25 == 0)
            ShowProgress(double(i + 1) / double(ticks));
    }
    if (progress)
        ShowProgress(1.0), std::fputc('\n', stderr);
    // Played out: the engine would go on decoding ahead (or the next chunk
    // back) while the outputs are written, and hold its pictures till exit.
    const molvane::Player::Stats stats = player.GetStats();
    const bool hadPictures = player.HasVideo();
    player.Close();
    if (!wav.Close(&error))
        std::fprintf(stderr, "molvane-play: %s\n", qPrintable(error));
    csv.close();
    const bool pictureWritten =
        hadPictures ? WriteContactSheet(out + "/frames.png", sheet, &error)
                          : WriteWaveform(out + "/frames.png", heard, &error);
    if (!pictureWritten)
        std::fprintf(stderr, "molvane-play: %s\n", qPrintable(error));

    const QJsonObject summary{
        {"file", QFileInfo(file).absoluteFilePath()},
        {"ticks", double(i)},
        {"late_ticks", double(late)},
        {"frames_shown", double(shownStarts.size())},
        {"silent_audio_buffers", double(silentBuffers)},
        {"seeks", stats.seeks},
        {"seeks_made_again", stats.reseeks},
        {"drift_corrections", stats.driftCorrections},
        {"peak_video_cache_bytes", double(stats.peakVideoCacheBytes)},
        {"peak_picture_bytes", double(stats.peakPictureBytes)},
        {"peak_audio_cache_bytes", double(stats.peakAudioCacheBytes)},
        {"backward_chunks", stats.backwardChunks},
        {"video_cache_budget_bytes", double(stats.videoCacheBudget)},
        {"largest_frame_bytes", double(stats.largestFrameBytes)},
        {"seek_to_frame_ms_median", Percentile(seekMillis, 0.5)},
        {"seek_to_frame_ms_p95", Percentile(seekMillis, 0.95)},
        {"peak_resident_bytes", PeakResidentBytes()},
        {"resident_before_open_bytes", residentBeforeOpen},
        {"decode_speed_x_realtime",
         stats.decodeSeconds > 0 ? double(stats.decodedMicros) / kSecond / stats.decodeSeconds : 0.0},
    };
    QFile json(out + "/summary.json");
    const QByteArray text = QJsonDocument(summary).toJson();
    if (!json.open(QIODevice::WriteOnly | QIODevice::Truncate) || json.write(text) != text.size()) {
        std::fprintf(stderr, "molvane-play: cannot write %s\n", qPrintable(json.fileName()));
        return 1;
    }
    std::fwrite(text.constData(), 1, size_t(text.size()), stdout);
    return 0;
}
