#include <MolvaneAV/Settings.h>

// Well under one frame even at 120 fps, above the rounding of any time base.
const int Settings::ROUNDING_ERROR_EXTRA_TIME = 1000;
// Keep a quarter of the budget behind the play position for short jumps back.
float Settings::maxTrailingCacheWhilePlaying = 0.25f;
// Codecs reorder by up to a few frames; three cover the frame shown at T.
int Settings::maxTrailingFramesAfterSeek = 3;
// Below 1 fps a sequence is a slide show with its own timing; above 1000 fps a
// rate is almost surely a broken time base rather than a real frame rate.
const double Settings::MIN_IMAGE_SEQUENCE_FRAME_RATE = 1.0;
const double Settings::MAX_IMAGE_SEQUENCE_FRAME_RATE = 1000.0;
// The film rate: the usual rate of image sequences coming out of renderers.
const double Settings::DEFAULT_IMAGE_SEQUENCE_FRAME_RATE = 24.0;
