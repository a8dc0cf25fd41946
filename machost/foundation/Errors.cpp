#include "machost/foundation/Errors.h"

#include "machost/corefoundation/Strings.h"
#include "machost/foundation/Library.h"
#include "machost/objc/Messages.h"
#include "machost/objc/Pools.h"

namespace machost::foundation {
namespace {

using corefoundation::makeString;
using objc::Selector;

const Error& errorOf(const void* object) { return valueOf<Error>(object); }

std::int64_t answerCode(ObjectRef self, Selector) { return errorOf(self).code; }

ObjectRef answerLocalized(ObjectRef self, Selector) {
    return objc::autorelease(makeString(errorOf(self).localizedDescription));
}

ObjectRef answerDescription(ObjectRef self, Selector) {
    const Error& error = errorOf(self);
    if (!error.description.empty()) return objc::autorelease(makeString(error.description));
    return objc::autorelease(makeString("Error Domain=" + error.domain +
                                        " Code=" + std::to_string(error.code) + " \"" +
                                        error.localizedDescription + "\""));
}

} // namespace

const Class errorClass{&classOfClasses, &rootClass, {}, nullptr, "NSError", destroyValue<Error>};

ObjectRef makeError(const Error& error) { return objc::createAutoreleased<Error>(errorClass, error); }

void tellError(ObjectRef* wanted, const Error& error) {
    if (wanted) *wanted = makeError(error);
}

const objc::PlayedClass& playedErrorClass() {
    static const auto& played = *new objc::PlayedClass{
        &errorClass,
        "NSError.h, without the list of further information in a description",
        {},
        {objc::method("code", answerCode), objc::method("localizedDescription", answerLocalized),
         objc::method("description", answerDescription)}};
    return played;
}

} // namespace machost::foundation
