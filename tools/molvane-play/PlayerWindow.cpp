#include "PlayerWindow.h"

#include "AudioDevice.h"
#include "PlayOutputs.h"

#include <QFileInfo>
#include <QKeyEvent>
#include <QLabel>
#include <QPainter>
#include <QSlider>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>

namespace {

constexpr double kMaxShuttle = 8.0;
constexpr int kTickMillis = 16; // about a display refresh

// The tag may hold any angle; pictures only turn in quarter steps.
int QuarterTurns(int rotation) { return ((rotation % 360 + 360) % 360 + 45) / 90 % 4; }

bool HasPicture(const DecodedVideoFrame* frame)
{
    return frame && frame->data && frame->status == 0 && frame->width > 0 && frame->height > 0 &&
           frame->size >= int64_t((3 * frame->width + 3) / 4 * 4) * frame->height;
}

} // namespace

FrameView::FrameView(QWidget* parent) : QWidget(parent)
{
    setAttribute(Qt::WA_OpaquePaintEvent);
    setMinimumSize(160, 90);
}

void FrameView::SetFrame(std::shared_ptr<DecodedVideoFrame> next)
{
    if (next == frame)
        return;
    frame = std::move(next);
    update();
}

QSize FrameView::sizeHint() const
{
    if (!HasPicture(frame.get()))
        return QSize(640, 360);
    const QSize size(frame->width, frame->height);
    return QuarterTurns(frame->rotation) % 2 ? size.transposed() : size;
}

void FrameView::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    painter.fillRect(rect(), Qt::black);
    // Held for the whole paint: the image below borrows its pixels.
    const std::shared_ptr<DecodedVideoFrame> painted = frame;
    if (!HasPicture(painted.get()))
        return;
    // Rows are padded to 4 bytes, as QImage's RGB888 scanlines are: no copy.
    const QImage image(painted->data, painted->width, painted->height, (3 * painted->width + 3) / 4 * 4,
                       QImage::Format_RGB888);
    const int turns = QuarterTurns(painted->rotation);
    QSizeF box = QSizeF(image.size());
    if (turns % 2)
        box.transpose();
    box.scale(QSizeF(size()), Qt::KeepAspectRatio);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.translate(width() / 2.0, height() / 2.0);
    painter.rotate(90.0 * turns);
    if (turns % 2)
        box.transpose();
    painter.drawImage(QRectF(QPointF(-box.width() / 2, -box.height() / 2), box), image);
}

PlayerWindow::PlayerWindow(molvane::Player& player, AudioDevice* device, QWidget* parent)
    : QWidget(parent), player(player), device(device), view(new FrameView(this)),
      slider(new QSlider(Qt::Horizontal, this)), status(new QLabel(this))
{
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(2);
    layout->addWidget(view, 1);
    layout->addWidget(slider);
    layout->addWidget(status);
    // The keys belong to the window, not to the slider.
    slider->setFocusPolicy(Qt::NoFocus);
    slider->setRange(0, int(std::max<int64_t>(0, player.Duration() - 1) / 1000));
    status->setTextInteractionFlags(Qt::NoTextInteraction);
    setFocusPolicy(Qt::StrongFocus);
    if (const auto info = player.Info())
        setWindowTitle(QStringLiteral("molvane-play: %1").arg(QFileInfo(info->filePath).fileName()));
    // Scrubbing seeks as the handle moves; the release seeks where it ends.
    connect(slider, &QSlider::sliderMoved, this, [this](int ms) { SeekTo(int64_t(ms) * 1000); });
    connect(slider, &QSlider::sliderReleased, this, [this] { SeekTo(int64_t(slider->value()) * 1000); });
    connect(&timer, &QTimer::timeout, this, [this] {
        const int64_t elapsed = wall.nsecsElapsed() / 1000;
        wall.restart();
        TickOnce(elapsed);
    });
    if (device)
        volume = device->Volume();
    UpdateStatus();
}

PlayerWindow::~PlayerWindow() = default;

void PlayerWindow::Start()
{
    timer.setTimerType(Qt::PreciseTimer);
    wall.start();
    timer.start(kTickMillis);
}

int64_t PlayerWindow::HeardPosition() const
{
    return device && device->IsOpen() ? device->ShownPosition() : player.Position();
}

void PlayerWindow::TickOnce(int64_t wallMicros)
{
    if (!device || !device->IsOpen())
        player.Advance(wallMicros);
    const int64_t position = HeardPosition();
    bool settled = true;
    const std::shared_ptr<DecodedVideoFrame> frame =
        waitForFrames ? player.WaitFrameAt(position) : player.FrameAt(position, &settled);
    ++ticks;
    shown.position = position;
    // The newest picture stands in while its successor is decoded: late.
    shown.late = player.HasVideo() && (!frame || !settled);
    lateTicks += shown.late ? 1 : 0;
    if (frame) {
        shown.frameStart = frame->startTime;
        view->SetFrame(frame);
    }
    // A stream that does not say how long it is grows as its end is found.
    const int end = int(std::max<int64_t>(0, player.Duration() - 1) / 1000);
    if (slider->maximum() != end)
        slider->setMaximum(end);
    if (!slider->isSliderDown())
        slider->setValue(int(position / 1000));
    UpdateStatus();
    if (onTick)
        onTick(shown);
}

void PlayerWindow::Play(double speed)
{
    // The clock restarts from what is shown, not from the buffers queued
    // ahead of it in the device.
    const int64_t from = HeardPosition();
    player.SetSpeed(speed);
    if (device && device->IsOpen()) {
        if (from != player.Position())
            player.Seek(from);
        device->Rebase();
    }
    if (speed != 0.0)
        resumeSpeed = speed;
    UpdateStatus();
}

void PlayerWindow::StepFrames(int count)
{
    Play(0.0);
    player.StepFrames(count);
    if (device)
        device->Rebase();
    UpdateStatus();
}

void PlayerWindow::SeekTo(int64_t position)
{
    player.Seek(position);
    if (device)
        device->Rebase();
    UpdateStatus();
}

void PlayerWindow::SetVolume(double value)
{
    volume = std::clamp(value, 0.0, 2.0);
    if (device)
        device->SetVolume(volume);
    UpdateStatus();
}

void PlayerWindow::keyPressEvent(QKeyEvent* event)
{
    const double speed = player.Speed();
    switch (event->key()) {
    case Qt::Key_Space:
        Play(speed != 0.0 ? 0.0 : resumeSpeed);
        break;
    case Qt::Key_L: // forwards, each press twice as fast
        Play(speed > 0.0 ? std::min(2.0 * speed, kMaxShuttle) : 1.0);
        break;
    case Qt::Key_J: // backwards, each press twice as fast
        Play(speed < 0.0 ? std::max(2.0 * speed, -kMaxShuttle) : -1.0);
        break;
    case Qt::Key_K:
        Play(0.0);
        break;
    case Qt::Key_Right:
        StepFrames(1);
        break;
    case Qt::Key_Left:
        StepFrames(-1);
        break;
    case Qt::Key_Plus:
    case Qt::Key_Equal:
        SetVolume(std::round((volume + 0.1) * 10.0) / 10.0);
        break;
    case Qt::Key_Minus:
        SetVolume(std::round((volume - 0.1) * 10.0) / 10.0);
        break;
    default:
        QWidget::keyPressEvent(event);
    }
}

QString PlayerWindow::StatusText() const
{
    const molvane::Player::CacheFill fill = player.GetCacheFill();
    return QStringLiteral("%1 / %2   %3×   cache %4 MiB, %5 ahead, %6 behind   late %7   volume %8%%9")
        .arg(FormatTime(shown.position), FormatTime(player.Duration()))
        .arg(player.Speed(), 0, 'g', 3)
        .arg(double(fill.bytes) / double(1 << 20), 0, 'f', 1)
        .arg(fill.framesAhead)
        .arg(fill.framesBehind)
        .arg(lateTicks)
        .arg(int(std::lround(volume * 100)))
        .arg(player.HasAudio() && !(device && device->IsOpen()) ? QStringLiteral("   no sound device") : QString());
}

void PlayerWindow::UpdateStatus()
{
    status->setText(StatusText());
}
