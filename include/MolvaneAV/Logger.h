#pragma once

#include <MolvaneAV/Export.h>

#include <QString>

// Process-wide log of opening and decoding failures. Every record goes to
// Qt's logging in the category "molvane.av": errors as critical messages,
// the rest as info, so QT_LOGGING_RULES filters them and a host's
// qInstallMessageHandler receives them. An FFmpeg result code, when given,
// follows the text as " (code N: <FFmpeg's text for N>)".
class MOLVANEAV_EXPORT Logger
{
public:
    static Logger* GetInstance();

    void Error(const QString& message);
    void Error(const QString& message, int code);
    void Error(const char* message);
    void Error(const char* message, int code);
    void Info(const QString& message);

private:
    Logger() = default;
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;
};
