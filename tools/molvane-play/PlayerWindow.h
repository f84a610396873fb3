#pragma once

// A desktop view of the player engine: the frame of the play position at
// each display tick, the keys people know from editors (space, J K L,
// arrows, + -), a seek slider and a status line. The engine decodes and
// caches; the window only shows what it gives and sends it commands. With
// an AudioDevice the clock follows the device and the picture shows what
// is being heard.

#include <MolvaneAV/Player.h>

#include <QElapsedTimer>
#include <QTimer>
#include <QWidget>

#include <functional>
#include <memory>

class AudioDevice;
class QLabel;
class QSlider;

// Paints one record: its rotation applied, its aspect kept, black around it.
class FrameView : public QWidget
{
public:
    explicit FrameView(QWidget* parent = nullptr);
    void SetFrame(std::shared_ptr<DecodedVideoFrame> frame);
    const std::shared_ptr<DecodedVideoFrame>& Frame() const { return frame; }
    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    std::shared_ptr<DecodedVideoFrame> frame; // the pixels painted from
};

class PlayerWindow : public QWidget
{
public:
    // What one display tick showed.
    struct Tick {
        int64_t position = 0;    // the play position shown
        int64_t frameStart = -1; // of the frame on screen, -1 before the first
        bool late = false;       // its frame was not ready: the previous one stays
    };

    // device may be null: then the engine's own clock moves with the wall
    // clock (or with what TickOnce is given).
    PlayerWindow(molvane::Player& player, AudioDevice* device, QWidget* parent = nullptr);
    ~PlayerWindow() override;

    // Ticks on a timer at about the display's rate.
    void Start();
    // One display tick, as if wallMicros had passed since the last one.
    void TickOnce(int64_t wallMicros);
    // Ticks then wait for their frame, so that none is late (tests, slow
    // machines where every frame matters more than the pace).
    void SetWaitForFrames(bool wait) { waitForFrames = wait; }
    void SetTickHook(std::function<void(const Tick&)> hook) { onTick = std::move(hook); }

    // The clock's commands, as the keys give them.
    void Play(double speed);
    void StepFrames(int count);
    void SeekTo(int64_t position);
    void SetVolume(double volume);
    double Volume() const { return volume; }

    FrameView* View() const { return view; }
    int64_t ShownPosition() const { return shown.position; }
    int64_t Ticks() const { return ticks; }
    int64_t LateTicks() const { return lateTicks; }
    QString StatusText() const;

protected:
    void keyPressEvent(QKeyEvent* event) override;

private:
    int64_t HeardPosition() const;
    void UpdateStatus();

    molvane::Player& player;
    AudioDevice* const device;
    FrameView* view;
    QSlider* slider;
    QLabel* status;
    QTimer timer;
    QElapsedTimer wall;
    bool waitForFrames = false;
    std::function<void(const Tick&)> onTick;
    Tick shown;
    int64_t ticks = 0, lateTicks = 0;
    double volume = 1.0;
    double resumeSpeed = 1.0; // what space plays at after a pause
};
