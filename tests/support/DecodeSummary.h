#pragma once

// What the decoding and probing tests share beyond TestMedia.h: decoded
// pictures as one readable line, so that a table row can hold the expected
// outcome of a whole decode ("0-49 end", "7-12", "0-9 256x144"), and files.

#include "support/TestMedia.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <string>

namespace molvane::test {

using VideoRecords = QList<std::shared_ptr<DecodedVideoFrame>>;

// Painted indexes, runs of successive ones as "first-last"; "end" for the
// end-of-stream marker, WIDTHxHEIGHT for a size-change placeholder (whose
// one byte carries no index) and "?" for a picture without one, each
// repeated word once with its count ("256x144×10").
inline std::string Pictures(const VideoRecords& video)
{
    const auto word = [&](int i) -> std::string {
        const DecodedVideoFrame& frame = *video[i];
        return !frame.data               ? "end"
               : frame.status != 0       ? std::to_string(frame.width) + "x" + std::to_string(frame.height)
               : PaintedIndex(frame) < 0 ? "?"
                                         : "";
    };
    std::string text;
    for (int i = 0, n = 1; i < video.size(); i += n) {
        const std::string first = word(i);
        const int index = first.empty() ? PaintedIndex(*video[i]) : 0;
        for (n = 1; i + n < video.size() && word(i + n) == first; ++n) {
            if (first.empty() && PaintedIndex(*video[i + n]) != index + n)
                break;
        }
        const std::string last = first.empty() ? "-" + std::to_string(index + n - 1) : "×" + std::to_string(n);
        text += (i == 0 ? "" : " ") + (first.empty() ? std::to_string(index) : first) + (n == 1 ? "" : last);
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
