#include <MolvaneAV/Logger.h>

#include "support/TestMedia.h"

#include <gtest/gtest.h>

#include <QLoggingCategory>

// The wording of errors with their codes is checked where the library logs
// them; here, that a host's logging rules reach the library's category.
TEST(Logger, TheRulesFilterTheCategory)
{
    molvane::test::LogCapture capture;
    QLoggingCategory::setFilterRules(QStringLiteral("molvane.av.info=false"));
    Logger::GetInstance()->Info(QStringLiteral("hidden"));
    Logger::GetInstance()->Error("shown");
    QLoggingCategory::setFilterRules(QString());
    Logger::GetInstance()->Info(QStringLiteral("INFO: something worth knowing"));
    EXPECT_EQ(capture.Messages(), QStringList({"shown", "INFO: something worth knowing"}));
    EXPECT_EQ(capture.Types(), QList<QtMsgType>({QtCriticalMsg, QtInfoMsg}));
}
