#pragma once

// What the decoding and probing tests share beyond TestMedia.h: decoded
// pictures as one readable line, so that a table row can hold the expected
// outcome of a whole decode ("0-49 end", "7-12", "0-9 256x144"), and files.

#include "support/TestMedia.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <vector>

namespace molvane::test {

using VideoRecords = QList<std::shared_ptr<DecodedVideoFrame>>;

// Painted indexes, runs of successive ones as "first-last"; "end" for the
// end-of-stream marker, WIDTHxHEIGHT for a size-change placeholder (whose
// one byte carries no index) and "?" for a picture without one, each
// repeated word once with its count ("256x144×10").
inline std::string Pictures(const VideoRecords& video)
{
    std::vector<std::string> words;
    for (const auto& frame : video) {
        const int index = frame->data == nullptr || frame->status != 0 ? -1 : PaintedIndex(*frame);
        words.push_back(frame->data == nullptr ? "end"
                        : frame->status != 0   ? std::to_string(frame->width) + "x" + std::to_string(frame->height)
                        : index < 0            ? "?"
                                               : std::to_string(index));
    }
    std::string text;
    for (size_t i = 0, n = 1; i < words.size(); i += n) {
        const bool number = std::isdigit(words[i][0]) && words[i].find('x') == std::string::npos;
        for (n = 1; i + n < words.size(); ++n) {
            if (number ? words[i + n] != std::to_string(std::stoi(words[i]) + n) : words[i + n] != words[i])
                break;
        }
        const std::string last = n == 1 ? "" : number ? "-" + words[i + n - 1] : "×" + std::to_string(n);
        text += (text.empty() ? "" : " ") + words[i] + last;
    }
    return text;
}

// A file's bytes; a name without a folder is one of the test media.
inline QByteArray ReadFile(const QString& name)
{
    QFile file(MediaPath(name));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << name.toStdString();
    return file.readAll();
}

// Writes bytes to path, making its folder; returns path.
inline QString WriteFile(const QString& path, const QByteArray& bytes)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size()) << path.toStdString();
    return path;
}

} // namespace molvane::test
