#pragma once

// The program's version, and the older way of updating: a package that the check-in names, and the step that
// puts a new executable in the place of the old one. Static operations only. The cached texts take no lock:
// each is first asked for by one thread alone, as its operation says.

class GPString;

class Updater {
public:
    // Keeps the directory of the running executable out of the path that it was started with; none for a bare
    // name. Main thread, before any other runs.
    static void setPath(const char* argv0);

    // That directory without its last slash, borrowed; null if there is none.
    static const char* exePath();

    // The version text, such as "1.5.2". Valid for the life of the process. First called on the main thread.
    static const char* versionString();

    // The same, escaped for the query of a URL. Valid for the life of the process. For the check-in's thread.
    static char* encodedVersionString();

    // 1, 0 or -1 as version `a` is above, equal to or below version `b`, compared number by number.
    static int versionCompare(GPString* a, GPString* b);

    // Whether a package's name has the form agent-mac-1.5.2, with no extension.
    static bool isValidUpdate(GPString* name);

    // Fetches the package at `url`, unpacks it beside itself and starts its script, which does the installing
    // and is not waited for. Neither signature nor version is tested. Blocks until the package is unpacked.
    // False only when the package could not be fetched or stored, or when others could write to the folder that it
    // goes to; a text that names no file does nothing and is no failure.
    static bool processZip(GPString* url);

    // Moves the executable "twupdate" over the one called `name`, both in the program's directory or, without
    // one, in the working directory. `name` is deleted first, whatever then becomes of the move. False if the
    // move fails.
    static bool finishUpdate(const char* name);
};

// The three numbers of a version text. A field that is missing counts as 0.
void getVersion(GPString* text, int& major, int& minor, int& patch);
