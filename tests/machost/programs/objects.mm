// Run under machost: messages, counts, pools, a class of the program's own, and exceptions through frames of
// Objective-C and C++. Prints what came, a line each.

#import <Foundation/Foundation.h>

#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

namespace {

struct Noisy {
    const char* name = "a member";
    ~Noisy() { std::printf("gone %s\n", name); }
};

} // namespace

@interface Listener : NSObject {
@public
    Noisy member;
    NSInteger calls;
}
- (NSInteger)hear:(NSString*)text twice:(double)number;
+ (NSString*)kind;
@end

@implementation Listener
- (NSInteger)hear:(NSString*)text twice:(double)number {
    ++calls;
    std::printf("heard %s %.2f\n", text.UTF8String, number * 2);
    return calls;
}
+ (NSString*)kind {
    return @"listeners";
}
@end

@interface Eager : Listener
@end

@implementation Eager
- (NSInteger)hear:(NSString*)text twice:(double)number {
    std::printf("eagerly %s %.2f\n", text.UTF8String, number);
    return -1;
}
@end

namespace {

void tellClasses() {
    Listener* listener = [[Listener alloc] init];
    Listener* eager = [[Eager alloc] init];
    std::printf("calls %ld, %ld\n", static_cast<long>([listener hear:@"one" twice:1.5]),
                static_cast<long>([listener hear:@"caf\u00e9" twice:-0.25]));
    std::printf("answer %ld\n", static_cast<long>([eager hear:@"two" twice:3]));
    std::printf("kinds %s %s, %d%d%d%d\n", [Listener kind].UTF8String, [Eager kind].UTF8String,
                [eager isKindOfClass:[Listener class]], [listener isKindOfClass:[Eager class]],
                [eager isKindOfClass:[NSObject class]], [@"" isKindOfClass:[NSString class]]);
}

void tellNil() {
    NSString* none = nil;
    NSDate* never = nil;
    std::printf("nil %lu %d %.1f\n", static_cast<unsigned long>(none.length), none.UTF8String == nullptr,
                never.timeIntervalSinceNow);
}

void tellTexts() {
    NSString* units = @"\u20ac\U0001f600";
    std::printf("text %s, %lu units, %lu bytes\n", units.UTF8String, static_cast<unsigned long>(units.length),
                static_cast<unsigned long>([units lengthOfBytesUsingEncoding:NSUTF8StringEncoding]));
    NSString* bad = [[NSString alloc] initWithBytes:"\xff" length:1 encoding:NSUTF8StringEncoding];
    NSString* latin = [[NSString alloc] initWithBytes:"\xe9" length:1 encoding:NSISOLatin1StringEncoding];
    std::printf("bad %d, latin %s, no text %d\n", bad == nil, latin.UTF8String,
                [NSString stringWithUTF8String:"\xc0\x80"] == nil);
}

void tellCollections() {
    NSString* const words[] = {@"a", @"b", @"c"};
    NSMutableURLRequest* request =
        [[NSMutableURLRequest alloc] initWithURL:[NSURL URLWithString:@"http://host/%41/b"]];
    request.HTTPMethod = @"PUT";
    std::string all;
    NSString* many[40];
    for (auto& one : many)
        one = words[2];
    for (NSString* word in [NSArray arrayWithObjects:words count:3])
        all += word.UTF8String;
    for (NSString* word in [NSArray arrayWithObjects:many count:40])
        all += word.UTF8String;
    std::printf("%s %s %s\n", all.c_str(), request.HTTPMethod.UTF8String,
                [NSURL fileURLWithPath:@"/a b/c%41#"].path.UTF8String);
    NSData* data = [NSData dataWithBytes:"\0x" length:2];
    std::printf("data %lu %d\n", static_cast<unsigned long>(data.length),
                static_cast<const char*>(data.bytes)[1]);
}

__attribute__((noinline)) void throwText() {
    const Noisy local{"the thrower's own"};
    @throw @"thrown";
}

void tellExceptions() {
    @try {
        @try {
            throwText();
        } @finally {
            std::puts("finally");
        }
    } @catch (NSURL*) {
        std::puts("caught by the wrong handler");
    } @catch (NSString* text) {
        std::printf("caught %s\n", text.UTF8String);
    } @
    try {
        [NSURL fileURLWithPath:(NSString* _Nonnull)nil];
    } @catch (NSString*) {
        std::puts("caught by the wrong handler");
    } @catch (...) {
        std::puts("caught an exception of the system's");
    }
}

// A frame of Objective-C between a throw and a catch of C++.
__attribute__((noinline)) void passOn() {
    const Noisy local{"the frame's own"};
    @try {
        throw std::runtime_error("C++");
    } @catch (NSString*) {
        std::puts("caught by the wrong handler");
    }
}

void throughCpp(void (*call)()) {
    try {
        call();
    } catch (const std::exception& error) {
        std::printf("C++ caught %s\n", error.what());
    } catch (...) {
        std::puts("C++ caught something else");
    }
}

// This program's file has no property list, so nothing lets it use plain http; and no session takes another scheme.
void tellSessions() {
    for (NSString* address in [NSArray arrayWithObjects:(NSString* const[]){@"http://host/", @"ftp://host/"}
                                                  count:2]) {
        int ends[2];
        if (pipe(ends) != 0) return;
        const int told = ends[1];
        [[NSURLSession.sharedSession
            downloadTaskWithURL:[NSURL URLWithString:address]
              completionHandler:^(NSURL* location, NSURLResponse* response, NSError* error) {
                std::printf("session %d%d %ld %s\n", location == nil, response == nil,
                            static_cast<long>(error.code), error.description.UTF8String);
                close(told);
              }] resume];
        char byte = 0;
        if (read(ends[0], &byte, 1) != 0) std::puts("something was sent");
        close(ends[0]);
    }
}

} // namespace

int main() {
    @autoreleasepool {
        tellClasses();
        tellNil();
        tellTexts();
        tellCollections();
        tellExceptions();
        tellSessions();
        throughCpp(passOn);
        throughCpp(throwText);
    }
    std::puts("end");
    return 0;
}
