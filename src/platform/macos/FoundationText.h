#pragma once

// Texts between Foundation and the standard library. Objective-C++ alone.

#import <Foundation/Foundation.h>

#include <string>

namespace platform {

// The bytes as text; bytes that are no UTF-8 are taken for Latin-1, so that the result is never nil.
inline NSString* textObject(const std::string& text) {
    NSString* object = [[NSString alloc] initWithBytes:text.data()
                                                length:text.size()
                                              encoding:NSUTF8StringEncoding];
    if (object) return object;
    return [[NSString alloc] initWithBytes:text.data() length:text.size() encoding:NSISOLatin1StringEncoding];
}

// The text in UTF-8, zero bytes included; empty for nil.
inline std::string plainText(NSString* object) {
    const char* text = object.UTF8String;
    return text ? std::string(text, [object lengthOfBytesUsingEncoding:NSUTF8StringEncoding]) : std::string();
}

} // namespace platform
