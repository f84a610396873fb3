#include <MolvaneAV/Logger.h>

#include "foundation/FfmpegError.h"

#include <QLoggingCategory>

namespace {

Q_LOGGING_CATEGORY(avLog, "molvane.av")

QString WithCode(const QString& message, int code)
{
    return QStringLiteral("%1 (code %2: %3)").arg(message).arg(code).arg(molvane::FfmpegErrorText(code));
}

} // namespace

Logger* Logger::GetInstance()
{
    static Logger instance;
    return &instance;
}

void Logger::Error(const QString& message)
{
    qCCritical(avLog).noquote() << message;
}

void Logger::Error(const QString& message, int code)
{
    Error(WithCode(message, code));
}

void Logger::Error(const char* message)
{
    Error(QString::fromUtf8(message));
}

void Logger::Error(const char* message, int code)
{
    Error(QString::fromUtf8(message), code);
}

void Logger::Info(const QString& message)
{
    qCInfo(avLog).noquote() << message;
}
