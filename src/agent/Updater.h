#pragma once

// The program's version, and the step that puts a new executable in the place of the old one. Static
// operations only.

class Updater {
public:
    // Keeps the directory of the running executable out of the path that it was started with; none for a bare
    // name. Main thread, before any other runs.
    static void setPath(const char* argv0);

    // That directory without its last slash, borrowed; null if there is none.
    static const char* exePath();

    // The version text, such as "1.5.2". Valid for the life of the process. First called on the main thread.
    static const char* versionString();

    // Moves the waiting executable over the one called `name`; false if that fails.
    static bool finishUpdate(const char* name);
};
