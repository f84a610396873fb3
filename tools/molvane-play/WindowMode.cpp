#include "WindowMode.h"

#include "AudioDevice.h"
#include "PlayOutputs.h"
#include "PlayerWindow.h"

#include <MolvaneAV/Player.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTextStream>
#include <QTimer>

#include <xcb/xcb.h>

#include <cstdio>
#include <set>
#include <vector>

namespace {

constexpr int64_t kSecond = 1000000;

// Qt ends the process when its platform cannot start; without a display
// we would rather say so and exit.
bool DisplayReachable(QString* why)
{
    const QByteArray platform = qgetenv("QT_QPA_PLATFORM");
    if (!platform.isEmpty() && !platform.startsWith("xcb"))
        return true; // another platform (offscreen, ...): Qt's to judge
    const QByteArray display = qgetenv("DISPLAY");
    if (display.isEmpty()) {
        *why = QStringLiteral("no display (DISPLAY is not set)");
        return false;
    }
    xcb_connection_t* connection = xcb_connect(display.constData(), nullptr);
    const bool reached = xcb_connection_has_error(connection) == 0;
    xcb_disconnect(connection);
    if (!reached)
        *why = QStringLiteral("cannot connect to the display %1").arg(QString::fromUtf8(display));
    return reached;
}

bool WriteText(const QString& path, const QByteArray& text)
{
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(text) == text.size())
        return true;
    std::fprintf(stderr, "molvane-play: cannot write %s\n", qPrintable(path));
    return false;
}

} // namespace

int RunWindow(int argc, char** argv)
{
    QString why;
    if (!DisplayReachable(&why)) {
        std::fprintf(stderr, "molvane-play: --window needs a display: %s\n", qPrintable(why));
        return 1;
    }
    QApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addPositionalArgument("file", "Media file.");
    parser.addOptions({{"window", "Play in a window with sound."},
                       {"start", "Start position in seconds.", "s"},
                       {"speed", "Play speed at the start; negative plays backwards, 0 holds.", "x", "1"},
                       {"volume", "Volume factor.", "v", "1"},
                       {"cache-mb", "Video cache budget in MiB.", "n", "512"},
                       {"image", "Play the file as a still."},
                       {"no-sound", "Do not open an audio device."},
                       {"duration", "Close the window after D seconds.", "d"},
                       {"quit-at-end", "Close the window when the play reaches the end (or the start, backwards)."},
                       {"out", "Write a record of the run (ticks, device buffers, sound, last picture) to DIR.",
                        "dir"}});
    parser.addHelpOption();
    parser.process(app);
    const QString file = parser.positionalArguments().value(0);
    bool speedIsNumber = false;
    const double speed = parser.value("speed").toDouble(&speedIsNumber);
    if (file.isEmpty() || !speedIsNumber) {
        std::fprintf(stderr, "molvane-play: --window takes a file, and --speed a number\n");
        return 2;
    }

    molvane::Player player(parser.value("cache-mb").toLongLong() << 20);
    if (!player.Open(file, parser.isSet("image")))
        return 1;
    const QString out = parser.value("out");
    if (!out.isEmpty() && !QDir().mkpath(out)) {
        std::fprintf(stderr, "molvane-play: cannot create %s\n", qPrintable(out));
        return 1;
    }

    AudioDevice device(player);
    device.SetVolume(parser.value("volume").toDouble());
    device.SetRecording(!out.isEmpty());
    bool sound = false;
    if (player.HasAudio() && !parser.isSet("no-sound")) {
        QString reason;
        sound = device.Open(&reason);
        if (!sound)
            std::fprintf(stderr, "molvane-play: no sound: %s; playing on the system clock\n", qPrintable(reason));
    }

    PlayerWindow window(player, &device);
    const int64_t end = player.Duration();
    const int64_t start = parser.isSet("start") ? int64_t(parser.value("start").toDouble() * kSecond)
                          : speed < 0           ? end - 1
                                                : 0;
    window.SeekTo(std::clamp<int64_t>(start, 0, std::max<int64_t>(0, end - 1)));
    // The first picture is up before the clock starts. By then a video that
    // yields no picture at all is known.
    const bool hadVideo = player.HasVideo();
    player.WaitFrameAt(player.Position());
    if (hadVideo && !player.HasVideo() && !player.HasAudio()) {
        std::fprintf(stderr, "molvane-play: no picture of %s could be decoded\n", qPrintable(file));
        return 1;
    }
    window.TickOnce(0);
    window.Play(speed);

    QElapsedTimer wall;
    wall.start();
    QString ticksCsv = "device_time_us,play_time_us,frame_start_us,late\n";
    std::set<int64_t> shownStarts;
    const bool quitAtEnd = parser.isSet("quit-at-end");
    bool reachedEnd = false;
    window.SetTickHook([&](const PlayerWindow::Tick& tick) {
        if (tick.frameStart >= 0)
            shownStarts.insert(tick.frameStart);
        // The end as known now (a stream without a duration finds it while
        // playing), reached when the picture for what is heard gets there.
        const double playing = player.Speed();
        const int64_t last = player.Duration() - 1;
        if (quitAtEnd && ((playing > 0.0 && last >= 0 && tick.position >= last) || (playing < 0.0 && tick.position <= 0))) {
            reachedEnd = true;
            window.close();
        }
        if (out.isEmpty())
            return;
        const int64_t now = device.IsOpen() ? device.Now() : wall.nsecsElapsed() / 1000;
        ticksCsv += QStringLiteral("%1,%2,%3,%4\n")
                        .arg(now)
                        .arg(tick.position)
                        .arg(tick.frameStart)
                        .arg(tick.late ? 1 : 0);
    });
    window.resize(window.sizeHint());
    window.show();
    window.Start();
    if (parser.isSet("duration"))
        QTimer::singleShot(int(parser.value("duration").toDouble() * 1000), &window, &QWidget::close);
    const int status = app.exec();
    const QImage lastPicture = window.View()->grab().toImage();
    if (reachedEnd)
        device.PlayOut();
    device.Close();
    if (out.isEmpty())
        return status;

    std::vector<int16_t> samples;
    std::vector<AudioDevice::Buffer> buffers;
    device.TakeRecording(samples, buffers);
    QString buffersCsv = "dac_time_us,first_frame,play_time_us,frames\n";
    for (const auto& buffer : buffers)
        buffersCsv += QStringLiteral("%1,%2,%3,%4\n")
                          .arg(buffer.dacMicros)
                          .arg(buffer.firstFrame)
                          .arg(buffer.position)
                          .arg(buffer.frames);
    bool written = WriteText(out + "/ticks.csv", ticksCsv.toUtf8()) &&
                   WriteText(out + "/buffers.csv", buffersCsv.toUtf8());
    if (sound) {
        WavWriter wav;
        QString error;
        bool saved = wav.Open(out + "/audio.wav", player.AudioChannels(), player.AudioSampleRate(), &error);
        if (saved) {
            wav.Write(samples.data(), int(samples.size() / size_t(player.AudioChannels())));
            saved = wav.Close(&error);
        }
        if (!saved) {
            std::fprintf(stderr, "molvane-play: %s\n", qPrintable(error));
            written = false;
        }
    }
    if (!lastPicture.save(out + "/window.png", "PNG")) {
        std::fprintf(stderr, "molvane-play: cannot write %s/window.png\n", qPrintable(out));
        written = false;
    }
    const QJsonObject summary{
        {"file", QFileInfo(file).absoluteFilePath()},
        {"sound_device", sound},
        {"output_latency_ms", double(device.OutputLatencyMicros()) / 1000.0},
        {"ticks", double(window.Ticks())},
        {"late_ticks", double(window.LateTicks())},
        {"frames_shown", double(shownStarts.size())},
        {"silent_audio_buffers", double(device.SilentBuffers())},
    };
    const QByteArray text = QJsonDocument(summary).toJson();
    written = WriteText(out + "/summary.json", text) && written;
    std::fwrite(text.constData(), 1, size_t(text.size()), stdout);
    return written ? status : 1;
}
