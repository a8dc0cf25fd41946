#include "platform/UrlSession.h"

#include "platform/macos/FoundationText.h"

#import <Foundation/Foundation.h>
#include <dispatch/dispatch.h>
#include <unistd.h>

#include <utility>

namespace platform {
namespace {

NSURL* urlOf(const char* url) {
    NSString* text = [NSString stringWithUTF8String:url];
    return text ? [NSURL URLWithString:text] : nil;
}

UrlTaskResult resultOf(NSURL* location, NSURLResponse* response, NSError* error) {
    UrlTaskResult result;
    result.location = plainText(location.path);
    if ([response isKindOfClass:[NSHTTPURLResponse class]])
        result.statusCode = static_cast<NSHTTPURLResponse*>(response).statusCode;
    result.localizedDescription = plainText(error.localizedDescription);
    return result;
}

// Ends a task that no URL can be made for: the session would not take it.
void endWithoutUrl(UrlSession::Completion completion) {
    dispatch_async(dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0), ^{
      UrlTaskResult result;
      result.localizedDescription = "bad URL";
      completion(result);
    });
}

class FoundationUrlSession final : public UrlSession {
public:
    void downloadTask(const char* url, Completion completion) override {
        @autoreleasepool {
            NSURL* address = urlOf(url);
            if (!address) {
                endWithoutUrl(std::move(completion));
                return;
            }
            NSURLSessionDownloadTask* task = [NSURLSession.sharedSession
                downloadTaskWithURL:address
                  completionHandler:^(NSURL* location, NSURLResponse* response, NSError* error) {
                    completion(resultOf(location, response, error));
                  }];
            [task resume];
        }
    }

    void uploadTask(const char* url, const char* method, const std::string& data,
                    Completion completion) override {
        @autoreleasepool {
            NSURL* address = urlOf(url);
            if (!address) {
                endWithoutUrl(std::move(completion));
                return;
            }
            NSURLSession* session =
                [NSURLSession sessionWithConfiguration:NSURLSessionConfiguration.defaultSessionConfiguration];
            NSMutableURLRequest* request = [[NSMutableURLRequest alloc] initWithURL:address];
            request.HTTPMethod = [NSString stringWithUTF8String:method];
            NSURLSessionUploadTask* task =
                [session uploadTaskWithRequest:request
                                      fromData:[NSData dataWithBytes:data.data() length:data.size()]
                             completionHandler:^(NSData*, NSURLResponse* response, NSError* error) {
                               completion(resultOf(nil, response, error));
                             }];
            [task resume];
            // The session goes when its one task has ended.
            [session finishTasksAndInvalidate];
        }
    }

    void runMainLoop(int seconds) override {
        @autoreleasepool {
            NSDate* until = [NSDate dateWithTimeIntervalSinceNow:seconds];
            [NSRunLoop.mainRunLoop runUntilDate:until];
            // A run loop without sources comes back at once.
            const NSTimeInterval left = until.timeIntervalSinceNow;
            if (left > 0) usleep(static_cast<useconds_t>(left * 1000000));
        }
    }
};

FoundationUrlSession foundationUrlSession;

} // namespace

Service<UrlSession> urlSessionService{&foundationUrlSession};

std::string lastPathComponent(const char* url) {
    @autoreleasepool {
        return plainText(urlOf(url).lastPathComponent);
    }
}

} // namespace platform
