#include "platform/FileManager.h"

#import <Foundation/Foundation.h>

namespace platform {
namespace {

NSURL* fileUrl(const char* path) {
    NSString* text = [NSString stringWithUTF8String:path];
    return text.length > 0 ? [NSURL fileURLWithPath:text] : nil;
}

FileResult resultOf(BOOL done, NSError* error) {
    FileResult result;
    result.done = done;
    if (!done) result.code = error ? error.code : fileWriteUnknownError;
    return result;
}

FileResult raisedResult(NSString* text) {
    const char* raised = text.UTF8String;
    FileResult result;
    result.code = fileWriteUnknownError;
    result.raised = raised ? raised : "(null)";
    return result;
}

// A path that is no path is one at which nothing lies.
FileResult nothingThere() {
    FileResult result;
    result.code = fileNoSuchFileError;
    return result;
}

class FoundationFileManager final : public FileManager {
public:
    FileResult removeItem(const char* path) override {
        @autoreleasepool {
            NSURL* item = fileUrl(path);
            if (!item) return nothingThere();
            @try {
                NSError* error = nil;
                const BOOL done = [NSFileManager.defaultManager removeItemAtURL:item error:&error];
                return resultOf(done, error);
            } @catch (NSString* text) {
                return raisedResult(text);
            }
        }
    }

    FileResult moveItem(const char* from, const char* to) override {
        @autoreleasepool {
            NSURL* source = fileUrl(from);
            NSURL* target = fileUrl(to);
            if (!source || !target) return nothingThere();
            @try {
                NSError* error = nil;
                const BOOL done = [NSFileManager.defaultManager moveItemAtURL:source
                                                                        toURL:target
                                                                        error:&error];
                return resultOf(done, error);
            } @catch (NSString* text) {
                return raisedResult(text);
            }
        }
    }
};

FoundationFileManager foundationFileManager;

} // namespace

Service<FileManager> fileManagerService{&foundationFileManager};

} // namespace platform
