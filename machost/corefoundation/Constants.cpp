// Texts that Core Foundation names.

#include "machost/corefoundation/Library.h"
#include "machost/corefoundation/Strings.h"

#include <string_view>

namespace machost::corefoundation {
namespace {

constexpr ConstantString constant(std::string_view text) {
    return {&constantStringClass, constantBytes, text.data(), static_cast<std::int64_t>(text.size())};
}

const ConstantString defaultMode = constant("kCFRunLoopDefaultMode"), alertHeader = constant("AlertHeader"),
                     alertMessage = constant("AlertMessage"), defaultButton = constant("DefaultButtonTitle"),
                     alternateButton = constant("AlternateButtonTitle");

const void* const allocator = nullptr;
const ConstantString* const defaultModeKey = &defaultMode;
const ConstantString* const alertHeaderKey = &alertHeader;
const ConstantString* const alertMessageKey = &alertMessage;
const ConstantString* const defaultButtonKey = &defaultButton;
const ConstantString* const alternateButtonKey = &alternateButton;

} // namespace

const ImportTable& constantImports() {
    constexpr const char* notification = "CFUserNotification.c of CF";
    static const auto& table = *new ImportTable{
        variable("_kCFAllocatorDefault", &allocator, "CFBase.c of CF"),
        variable("_kCFRunLoopDefaultMode", &defaultModeKey, "CFRunLoop.c of CF"),
        variable("_kCFUserNotificationAlertHeaderKey", &alertHeaderKey, notification),
        variable("_kCFUserNotificationAlertMessageKey", &alertMessageKey, notification),
        variable("_kCFUserNotificationDefaultButtonTitleKey", &defaultButtonKey, notification),
        variable("_kCFUserNotificationAlternateButtonTitleKey", &alternateButtonKey, notification),
    };
    return table;
}

} // namespace machost::corefoundation
