#include "machost/foundation/Requests.h"

#include "machost/corefoundation/Strings.h"
#include "machost/foundation/Library.h"
#include "machost/objc/Messages.h"
#include "machost/objc/Pools.h"

namespace machost::foundation {
namespace {

using objc::Selector;

ObjectRef initWithUrl(ObjectRef self, Selector, const void* url) {
    valueOf<Request>(self).url = Held::retain(url);
    return self;
}

void setMethod(ObjectRef self, Selector, const void* method) {
    valueOf<Request>(self).method = method ? corefoundation::textOf(method) : "GET";
}

ObjectRef method(ObjectRef self, Selector) {
    return objc::autorelease(corefoundation::makeString(valueOf<Request>(self).method));
}

std::int64_t statusCode(ObjectRef self, Selector) { return valueOf<long>(self); }

} // namespace

const Class requestClass{&classOfClasses, &rootClass, {}, nullptr, "NSURLRequest", destroyValue<Request>};
const Class mutableRequestClass{&classOfClasses, &requestClass,         {},
                                nullptr,         "NSMutableURLRequest", destroyValue<Request>};
const Class responseClass{&classOfClasses, &rootClass, {}, nullptr, "NSURLResponse", nullptr};
const Class httpResponseClass{&classOfClasses, &responseClass, {}, nullptr, "NSHTTPURLResponse", nullptr};

ObjectRef makeResponse(long status) {
    return status == 0 ? nullptr : objc::createAutoreleased<long>(httpResponseClass, status);
}

const ImportTable& requestImports() {
    static const auto& table = *new ImportTable{
        variable("_OBJC_CLASS_$_NSMutableURLRequest", &mutableRequestClass, "NSURLRequest.h"),
        variable("_OBJC_CLASS_$_NSHTTPURLResponse", &httpResponseClass, "NSURLResponse.h"),
    };
    return table;
}

std::vector<const objc::PlayedClass*> playedRequestClasses() {
    static const auto& request = *new objc::PlayedClass{&requestClass,
                                                        "NSURLRequest.h",
                                                        {},
                                                        {objc::method("initWithURL:", initWithUrl)},
                                                        objc::allocateValue<Request, requestClass>};
    static const auto& mutableRequest = *new objc::PlayedClass{
        &mutableRequestClass,
        "NSURLRequest.h",
        {},
        {objc::method("setHTTPMethod:", setMethod), objc::method("HTTPMethod", method)},
        objc::allocateValue<Request, mutableRequestClass>};
    static const auto& response = *new objc::PlayedClass{&responseClass, "NSURLResponse.h", {}, {}};
    static const auto& httpResponse = *new objc::PlayedClass{
        &httpResponseClass, "NSURLResponse.h", {}, {objc::method("statusCode", statusCode)}};
    return {&request, &mutableRequest, &response, &httpResponse};
}

} // namespace machost::foundation
