#pragma once

// Files and folders: free functions on a path, and GPFilesystem, which holds a path. Results that are
// objects belong to the caller. Functions that read or write report by their result alone and log nothing.
// Any thread, unless said otherwise; a GPFilesystem belongs to one thread at a time.

#include "gp/GPObject.h"

#include <cstdio>

class GPArray;
class GPData;
class GPList;
class GPString;

// What a directory listing returns.
enum GPFileSearchType {
    GPFileSearchAll = 0,        // directories and other entries
    GPFileSearchFiles = 1,      // entries that are not directories
    GPFileSearchDirectories = 2 // directories
};

// Whether something exists at `path`; false for null.
bool ifExist(const char* path);

// Whether `path` is a directory.
bool isDirectory(const char* path);

// Whether `path` is not a directory. A path that does not exist is a file.
bool isFile(const char* path);

// Always false in practice, since the test follows links.
bool isSymbolicLink(const char* path);

// Whether the path (not its last component) begins with "~".
bool isHidden(const char* path);

// Always true.
bool isUnix();

// Opens a file as fopen does in one of the modes "r", "w" and "a", with or without a "b", and keeps it from programs
// that are started meanwhile. The caller closes it. Null when it does not open.
std::FILE* openFile(const char* path, const char* mode);

// Reads up to `length` bytes from byte `offset` on into `buffer`, and stores the number read in `length`.
// False for null, for a length below 1, or when the file does not open.
bool readFile(const char* path, char* buffer, long& length, int offset, bool binary);

// Writes `length` bytes, appending unless `truncate`. A length of 0 in text mode means the whole
// NUL-terminated text; in binary mode it fails, with the file already created or truncated.
bool writeFile(const char* path, const char* data, long length, bool binary, bool truncate);

// The file's content from `offset` on, in a buffer as large as the whole file. Null when `first` is not 0
// and when the file is empty or cannot be read.
GPData* readData(const char* path, int first, int offset);

// As readData, as text up to the first NUL; null when there is nothing.
GPString* readText(const char* path, int first, int offset);

bool writeData(const char* path, GPData* data, bool truncate);
bool writeText(const char* path, GPString* text, bool truncate);

// Creates an empty file, or empties the one that is there.
bool createNewFile(const char* path);

// Copies a file that is not empty. A destination that exists is appended to, not replaced.
bool copyFile(const char* from, const char* to);

bool renameFile(const char* from, const char* to);
bool moveFile(const char* from, const char* to);
bool deleteFile(const char* path);

// The size in bytes; 0 for null and for a path that does not exist.
long fileSize(const char* path);

// The permission bits with the set-id and sticky bits, or 0 when there is no such entry.
int fileMode(const char* path);
bool setFileMode(const char* path, int mode);

// Makes a directory, one level only, with the mode 0775 less the process's mask.
bool createDir(const char* path);

// Removes an empty directory.
bool deleteDir(const char* path);

// Adds a GPFilesystem for each entry of a directory, in the system's order, without ".DS_Store". Entries are
// tested for being directories by their bare name. Each object added keeps the reference of its creation, so
// it outlives the container.
void getDirectoryFiles(const char* path, GPArray* found, bool recursive, GPFileSearchType type);
void getDirectoryFiles(const char* path, GPList* found, bool recursive, GPFileSearchType type);

// The working directory, as text that is never freed; null on failure.
const char* getCurrentDirectory();

// Well-known directories. The text is only good until the calling thread's next such call.
const char* getAppDirectory();
const char* getUserDirectory();
const char* getDocDirectory();
const char* getTempDirectory();
const char* getAppDataDirectory();
const char* getSystemDirectory();

// The name set with setProcessName, or else the program's own. Valid until the next setProcessName.
const char* getProcessName();

// Names the process: what lies behind the last "/" of `name`, unless that slash is its first character. For
// the start of the process.
void setProcessName(const char* name);

int getPID();

class GPFilesystem : public GPObject {
public:
    // Keeps a copy of the path; null leaves the object without one.
    explicit GPFilesystem(const char* path);
    ~GPFilesystem() override;

    // An object for `path`, whose file is created if nothing is there. Null for null.
    static GPFilesystem* createFile(const char* path);

    void setPath(const char* path);

    // The path, or null.
    const char* fullPath();

    // Both give the last component of the path, as text that is never freed. Null without a path and when
    // the last slash is the first character.
    const char* name();
    const char* path();

    // The free functions of these names, on the path.
    long size();
    bool isDirectory();
    bool isFile();
    bool isHidden();
    bool isSymbolicLink();
    int fileMode();
    bool setFileMode(int mode);
    bool deleteFile();

    // As readData and readText; null without a path.
    GPData* read(int first, int offset);
    GPString* readText(int first, int offset);

    // All of these append.
    bool write(const char* data, long length, bool binary);
    bool write(GPData* data);
    bool writeText(GPString* text);
    bool writeFormat(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

    // Renames the file to `newName`, a full path unless the file lies in the root directory, and takes the
    // new path over on success. False for null or without a path.
    bool renameFile(const char* newName);

private:
    const char* lastComponent();

    GPString* path_ = nullptr;
};
