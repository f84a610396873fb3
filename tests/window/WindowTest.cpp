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
#include <tuple>

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
    // File, start, view, frame shown, quarter turns, where the picture must
    // lie, centred.
    const std::tuple<const char*, int64_t, QSize, int, int, QSize> cases[] = {
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
    for (const auto& [file, start, view, index, quarterTurns, size] : cases) {
        SCOPED_TRACE(std::string(file) + " at " + std::to_string(start));
        Session session(file, start, view);
        const QImage grab = session.Grab();
        const QRect box = PictureBox(grab);
        EXPECT_NEAR(box.width(), size.width(), 2);
        EXPECT_NEAR(box.height(), size.height(), 2);
        EXPECT_NEAR(box.center().x(), view.width() / 2, 2);
        EXPECT_NEAR(box.center().y(), view.height() / 2, 2);
        EXPECT_EQ(IndexIn(grab, box, quarterTurns), index);
        if (quarterTurns != 0) {
            EXPECT_EQ(IndexIn(grab, box), -1) << "the picture is not turned";
        }
    }
}

TEST(PlayerWindow, KeysMoveTheClockAsEditorsDo)
{
    // From the middle of frame `from` of 50 (once the clip is in the cache),
    // after the keys ('>' and '<' are the arrows, which step exactly one
    // frame): the speed, the frame shown, how far each tick of one frame
    // step moves it, and a part of the status line.
    const std::tuple<int, const char*, double, int, int, const char*> cases[] = {
        {0, "", 0.0, 0, 0,
         "00:00:00.020 / 00:00:02.000   0×   cache 11.0 MiB, 49 ahead, 0 behind   late 0   volume 100%   no sound "},
        {0, ">>", 0.0, 2, 0, "00:00:00.080 / 00:00:02.000   0×   cache 11.0 MiB, 47 ahead, 2 behind"},
        {25, "L", 1.0, 25, 1, "00:00:01.020 / 00:00:02.000   1× "},
        {25, "LL", 2.0, 25, 2, " 2× "},
        {25, "LLLLL", 8.0, 25, 8, " 8× "}, // doubling stops at 8×
        {25, "J", -1.0, 25, -1, " -1× "},
        {25, "JJ", -2.0, 25, -2, " -2× "},
        {25, "LLK", 0.0, 25, 0, " 0× "},
        {25, "JK", 0.0, 25, 0, " 0× "},
        {25, "LJ", -1.0, 25, -1, " -1× "}, // J after playing forwards starts backwards at 1×
        {25, " ", 1.0, 25, 1, " 1× "},
        {25, "L ", 0.0, 25, 0, " 0× "},
        {25, "LL  ", 2.0, 25, 2, " 2× "}, // space resumes at the speed it paused
        {25, ">>>", 0.0, 28, 0, "00:00:01.120 "},
        {25, "LL<", 0.0, 24, 0, " 0× "}, // a step while playing pauses first
        {25, "<>", 0.0, 25, 0, " 0× "},
        {25, "++-", 0.0, 25, 0, "volume 110%"},
        {25, "---------------", 0.0, 25, 0, "volume 0%"}, // never below silence
    };
    for (const auto& [from, keys, speed, frame, perTick, status] : cases) {
        SCOPED_TRACE(std::string("keys \"") + keys + "\"");
        Session session("h264_aac.mp4", from * kStep + kStep / 2);
        session.player.WaitFrameAt(49 * kStep);
        for (const char* key = keys; *key; ++key) {
            const int arrow = *key == '>' ? Qt::Key_Right : *key == '<' ? Qt::Key_Left : 0;
            if (arrow != 0)
                QTest::keyClick(session.window.get(), Qt::Key(arrow));
            else
                QTest::keyClick(session.window.get(), *key);
        }
        session.window->TickOnce(0);
        EXPECT_EQ(session.player.Speed(), speed);
        EXPECT_TRUE(session.window->StatusText().contains(status)) << session.window->StatusText().toStdString();
        QList<int> shown, expected;
        for (int tick = 0; tick <= 2; ++tick) {
            shown << session.Shown();
            expected << frame + tick * perTick;
            session.window->TickOnce(kStep);
        }
        EXPECT_EQ(shown, expected);
    }
}
