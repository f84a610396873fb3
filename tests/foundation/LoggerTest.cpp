#include <MolvaneAV/Logger.h>

#include "support/LogCapture.h"

extern "C" {
#include <libavutil/error.h>
}

#include <gtest/gtest.h>

#include <QLoggingCategory>

using molvane::test::LogCapture;

TEST(Logger, IsOneProcessWideObject)
{
    ASSERT_NE(Logger::GetInstance(), nullptr);
    EXPECT_EQ(Logger::GetInstance(), Logger::GetInstance());
}

TEST(Logger, ErrorsGoOutAsCriticalMessagesWithTheTextUnchanged)
{
    LogCapture capture;
    Logger::GetInstance()->Error("Video decoder not found.");
    Logger::GetInstance()->Error(QStringLiteral("File not found: /tmp/Zürich café.mp4"));

    const auto records = capture.Records();
    ASSERT_EQ(records.size(), 2);
    EXPECT_EQ(records[0].type, QtCriticalMsg);
    EXPECT_EQ(records[0].message, QStringLiteral("Video decoder not found."));
    EXPECT_EQ(records[1].message, QStringLiteral("File not found: /tmp/Zürich café.mp4"));
}

TEST(Logger, FfmpegCodeFollowsTheTextWithFfmpegsOwnWording)
{
    LogCapture capture;
    Logger::GetInstance()->Error("Failed to open audio codec.", AVERROR(ENOENT));
    Logger::GetInstance()->Error(QStringLiteral("Seek Failed."), AVERROR_EOF);
    Logger::GetInstance()->Error(QStringLiteral("Failed to open video codec."), AVERROR_INVALIDDATA);

    EXPECT_EQ(capture.Messages(),
              QStringList({QStringLiteral("Failed to open audio codec. (code -2: No such file or directory)"),
                           QStringLiteral("Seek Failed. (code %1: End of file)").arg(AVERROR_EOF),
                           QStringLiteral("Failed to open video codec. (code %1: Invalid data found when processing input)")
                               .arg(AVERROR_INVALIDDATA)}));
}

TEST(Logger, InfoIsAnInfoMessage)
{
    LogCapture capture;
    Logger::GetInstance()->Info(QStringLiteral("INFO: something worth knowing"));

    const auto records = capture.Records();
    ASSERT_EQ(records.size(), 1);
    EXPECT_EQ(records[0].type, QtInfoMsg);
    EXPECT_EQ(records[0].message, QStringLiteral("INFO: something worth knowing"));
}

TEST(Logger, LoggingRulesFilterTheCategory)
{
    LogCapture capture;
    QLoggingCategory::setFilterRules(QStringLiteral("molvane.av.info=false"));
    Logger::GetInstance()->Info(QStringLiteral("hidden"));
    Logger::GetInstance()->Error("shown");
    QLoggingCategory::setFilterRules(QString());

    EXPECT_EQ(capture.Messages(), QStringList({QStringLiteral("shown")}));
}
