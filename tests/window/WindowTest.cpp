// The window as a person at a desktop uses it, on a real X server: what it
// paints is read back from its own pixels (the frame index every test
// picture carries), keys go in through QTest, and the clock is ticked by the
// test, one frame step at a time, so nothing depends on the machine's pace.

#include "Pictures.h"
#include "PlayerWindow.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QTest>

#include <memory>

using namespace molvane::test;

// libdbus, which Qt's desktop integration loads, keeps a buffer to the end.
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions()
{
    return "leak:libdbus-1.so\n";
}

namespace {

constexpr int64_t kStep = 40000; // every clip here runs at 25 fps

class Desktop : public testing::Environment
{
public:
    void SetUp() override { app = std::make_unique<QApplication>(argc, argv); }
    void TearDown() override { app.reset(); }

private:
    int argc = 1;
    char name[16] = "window_test";
    char* argv[2] = {name, nullptr};
    std::unique_ptr<QApplication> app;
};
const auto* const desktop = testing::AddGlobalTestEnvironment(new Desktop);

struct Session {
    molvane::Player player;
    std::unique_ptr<PlayerWindow> window;

    explicit Session(const char* file, int64_t start, QSize size = QSize(320, 240))
    {
        EXPECT_TRUE(player.Open(MediaPath(file)));
        window = std::make_unique<PlayerWindow>(player, nullptr);
        window->SetWaitForFrames(true);
        window->SeekTo(start);
        window->TickOnce(0);
        window->show();
        window->View()->setFixedSize(size);
        EXPECT_TRUE(QTest::qWaitForWindowExposed(window.get()));
    }
    QImage Grab() const { return window->View()->grab().toImage(); }
    int Shown() const
    {
        const QImage grab = Grab();
        return IndexIn(grab, PictureBox(grab));
    }
};

} // namespace

TEST(PlayerWindow, ShowsTheFrameOfTheStartPositionTurnedAndInItsAspect)
{
    const struct {
        const char* file;
        int64_t start;
        QSize view;
        int expectedIndex;
        int quarterTurns;
        QSize pictureSize; // where the picture must lie, centred
    } cases[] = {
        {"h264_aac.mp4", 0, {320, 240}, 0, 0, {320, 240}},
        {"h264_aac.mp4", 1210000, {320, 240}, 30, 0, {320, 240}},
        {"h264_aac.mp4", 1999999, {320, 240}, 49, 0, {320, 240}},
        // Wider and taller views than the picture: bars at the sides, then above and below.
        {"h264_aac.mp4", 400000, {640, 240}, 10, 0, {320, 240}},
        {"h264_aac.mp4", 400000, {300, 600}, 10, 0, {300, 225}},
        // A 90° display matrix: a portrait picture that reads only once turned back.
        {"rotated_90.mp4", 480000, {480, 480}, 12, 1, {360, 480}},
        {"rotated_90.mp4", 0, {240, 320}, 0, 1, {240, 320}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.file) + " at " + std::to_string(c.start));
        Session session(c.file, c.start, c.view);
        const QImage grab = session.Grab();
        const QRect box = PictureBox(grab);
        EXPECT_NEAR(box.width(), c.pictureSize.width(), 2);
        EXPECT_NEAR(box.height(), c.pictureSize.height(), 2);
        EXPECT_NEAR(box.center().x(), c.view.width() / 2, 2);
        EXPECT_NEAR(box.center().y(), c.view.height() / 2, 2);
        EXPECT_EQ(IndexIn(grab, box, c.quarterTurns), c.expectedIndex);
        if (c.quarterTurns != 0) {
            EXPECT_EQ(IndexIn(grab, box), -1) << "the picture is not turned";
        }
    }
}

TEST(PlayerWindow, KeysMoveTheClockAsEditorsDo)
{
    // From frame 25 of 50, ticks of one frame step after the keys: the
    // painted index moves by `perTick` each tick.
    const struct {
        const char* keys;
        double speed;
        int perTick;
    } cases[] = {
        {"L", 1.0, 1},
        {"LL", 2.0, 2},
        {"LLLLL", 8.0, 8}, // doubling stops at 8×
        {"J", -1.0, -1},
        {"JJ", -2.0, -2},
        {"LLK", 0.0, 0},
        {"JK", 0.0, 0},
        {"LJ", -1.0, -1}, // J after playing forwards starts backwards at 1×
        {" ", 1.0, 1},
        {"L ", 0.0, 0},
        {"LL  ", 2.0, 2}, // space resumes at the speed it paused
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string("keys \"") + c.keys + "\"");
        Session session("h264_aac.mp4", 25 * kStep);
        ASSERT_EQ(session.Shown(), 25);
        QTest::keyClicks(session.window.get(), c.keys);
        EXPECT_EQ(session.player.Speed(), c.speed);
        QList<int> shown, expected;
        for (int tick = 1; tick <= 3; ++tick) {
            session.window->TickOnce(kStep);
            shown << session.Shown();
            expected << 25 + tick * c.perTick;
        }
        EXPECT_EQ(shown, expected);
    }
}

TEST(PlayerWindow, ArrowsStepExactlyOneFrameAndPauseTheClock)
{
    const struct {
        QList<Qt::Key> keys;
        int expected;
    } cases[] = {
        {{Qt::Key_Right}, 26},
        {{Qt::Key_Left}, 24},
        {{Qt::Key_Right, Qt::Key_Right, Qt::Key_Right}, 28},
        {{Qt::Key_L, Qt::Key_L, Qt::Key_Left}, 24}, // a step while playing pauses first
        {{Qt::Key_Left, Qt::Key_Right}, 25},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        Session session("h264_aac.mp4", 25 * kStep + kStep / 2);
        for (const Qt::Key key : c.keys) {
            QTest::keyClick(session.window.get(), key);
            session.window->TickOnce(0);
        }
        EXPECT_EQ(session.player.Speed(), 0.0);
        EXPECT_EQ(session.Shown(), c.expected);
        // Paused: later ticks hold the frame.
        session.window->TickOnce(kStep);
        EXPECT_EQ(session.Shown(), c.expected);
    }
}

TEST(PlayerWindow, TheStatusLineShowsTimeSpeedCacheAndVolume)
{
    const struct {
        QString keys;
        int steps;
        QStringList parts;
    } cases[] = {
        // The whole clip in the cache: every frame after the shown one is ahead of it.
        {"", 0, {"00:00:00.000 / 00:00:02.000", " 0×", "49 ahead, 0 behind", "volume 100%", "late 0"}},
        {"", 2, {"00:00:00.080 / 00:00:02.000", "47 ahead, 2 behind"}},
        {"LL", 0, {" 2×", "volume 100%"}},
        {"J", 0, {" -1×"}},
        {"++-", 0, {"volume 110%"}},
        {"---------------", 0, {"volume 0%"}}, // never below silence
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.keys.toStdString());
        Session session("h264_aac.mp4", 0);
        session.player.WaitFrameAt(49 * kStep);
        for (int i = 0; i < c.steps; ++i)
            QTest::keyClick(session.window.get(), Qt::Key_Right);
        QTest::keyClicks(session.window.get(), c.keys);
        session.window->TickOnce(0);
        const QString status = session.window->StatusText();
        for (const QString& part : c.parts)
            EXPECT_TRUE(status.contains(part)) << status.toStdString();
    }
}
