#pragma once

// Reading a test picture back from what a window painted.

#include "support/TestMedia.h"

#include <QImage>
#include <QRect>
#include <QTransform>

namespace molvane::test {

// Where the picture lies in a grab: the box of its bright pixels (every row
// and column of a test picture has some; the background is black).
inline QRect PictureBox(const QImage& grab)
{
    QRect box;
    for (int y = 0; y < grab.height(); ++y) {
        for (int x = 0; x < grab.width(); ++x) {
            if (qGray(grab.pixel(x, y)) > 60)
                box |= QRect(x, y, 1, 1);
        }
    }
    return box;
}

// The frame index painted into the part of a grab inside box, turned back
// by quarterTurns clockwise turns; -1 when it shows none.
inline int IndexIn(const QImage& grab, const QRect& box, int quarterTurns = 0)
{
    const QImage picture = grab.copy(box)
                               .transformed(QTransform().rotate(-90.0 * quarterTurns))
                               .convertToFormat(QImage::Format_RGB888);
    // The record's rows follow QImage's RGB888 scanlines: 4-byte padding.
    const DecodedVideoFrame frame(picture.constBits(), int(picture.sizeInBytes()), picture.width(), picture.height(),
                                  0, 25.0, 0, false);
    return PaintedIndex(frame);
}

} // namespace molvane::test
