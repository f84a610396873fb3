#include <MolvaneAV/Logger.h>

#include "support/TestMedia.h"

extern "C" {
#include <libavutil/error.h>
}

#include <gtest/gtest.h>

#include <QLoggingCategory>

TEST(Logger, ErrorsAreCriticalWithFfmpegsWordingOfTheCodeAfterTheTextAndTheRulesFilterTheCategory)
{
    molvane::test::LogCapture capture;
    Logger* logger = Logger::GetInstance();
    ASSERT_EQ(logger, Logger::GetInstance());
    logger->Error("Video decoder not found.");
    logger->Error(QStringLiteral("File not found: /tmp/Zürich café.mp4"));
    logger->Error("Failed to open audio codec.", AVERROR(ENOENT));
    logger->Error(QStringLiteral("Seek Failed."), AVERROR_EOF);
    logger->Info(QStringLiteral("INFO: something worth knowing"));
    QLoggingCategory::setFilterRules(QStringLiteral("molvane.av.info=false"));
    logger->Info(QStringLiteral("hidden"));
    QLoggingCategory::setFilterRules(QString());
    EXPECT_EQ(capture.Messages(),
              QStringList({"Video decoder not found.", QStringLiteral("File not found: /tmp/Zürich café.mp4"),
                           "Failed to open audio codec. (code -2: No such file or directory)",
                           QStringLiteral("Seek Failed. (code %1: End of file)").arg(AVERROR_EOF),
                           "INFO: something worth knowing"}));
    EXPECT_EQ(capture.Types(),
              QList<QtMsgType>({QtCriticalMsg, QtCriticalMsg, QtCriticalMsg, QtCriticalMsg, QtInfoMsg}));
}
