#pragma once

#include <QLoggingCategory>
#include <QString>
#include <QStringList>
#include <QtGlobal>

#include <mutex>

namespace molvane::test {

// Collects what the library logs in its category while in scope, so tests
// can check exact message texts. One capture at a time per process.
class LogCapture
{
public:
    struct Record {
        QtMsgType type;
        QString message;
    };

    LogCapture()
    {
        std::lock_guard<std::mutex> lock(Mutex());
        Current() = this;
        previous_ = qInstallMessageHandler(&LogCapture::Handle);
    }
    ~LogCapture()
    {
        std::lock_guard<std::mutex> lock(Mutex());
        qInstallMessageHandler(previous_);
        Current() = nullptr;
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    QList<Record> Records() const
    {
        std::lock_guard<std::mutex> lock(Mutex());
        return records_;
    }
    QStringList Messages() const
    {
        QStringList messages;
        for (const Record& record : Records())
            messages << record.message;
        return messages;
    }
    void Clear()
    {
        std::lock_guard<std::mutex> lock(Mutex());
        records_.clear();
    }

private:
    static void Handle(QtMsgType type, const QMessageLogContext& context, const QString& message)
    {
        std::lock_guard<std::mutex> lock(Mutex());
        if (Current() != nullptr && context.category != nullptr && qstrcmp(context.category, "molvane.av") == 0)
            Current()->records_.append({type, message});
    }
    static LogCapture*& Current()
    {
        static LogCapture* current = nullptr;
        return current;
    }
    static std::mutex& Mutex()
    {
        static std::mutex mutex;
        return mutex;
    }

    QtMessageHandler previous_ = nullptr;
    QList<Record> records_;
};

} // namespace molvane::test
