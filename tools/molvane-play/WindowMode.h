#pragma once

// molvane-play --window: the file in a desktop window, with sound on the
// default audio device when there is one. Returns the exit status.
int RunWindow(int argc, char** argv);
