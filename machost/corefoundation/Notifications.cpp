// Dialogs for the console user.

#include "machost/corefoundation/Collections.h"
#include "machost/corefoundation/Library.h"
#include "machost/corefoundation/Strings.h"
#include "machost/world/Dialogs.h"

#include <memory>

namespace machost::corefoundation {
namespace {

using Notification = std::unique_ptr<world::Dialog>;

const Class notificationClass{
    nullptr, nullptr, {}, nullptr, "CFUserNotification", destroyValue<Notification>};

constexpr std::int32_t failed = -1;

ObjectRef playedCreate(const void*, double seconds, unsigned long flags, std::int32_t* error,
                       const void* texts) {
    std::vector<std::pair<std::string, std::string>> shown;
    if (texts) {
        for (const auto& [key, value] : pairsOf(texts))
            if (isString(value.get())) shown.emplace_back(textOf(key.get()), textOf(value.get()));
    }
    Notification dialog = world::showDialog(seconds, flags, shown);
    if (error) *error = dialog ? 0 : failed;
    return dialog ? createObject<Notification>(notificationClass, std::move(dialog)) : nullptr;
}

// A limit of its own for the wait is not played; the program gives none.
std::int32_t playedReceive(ObjectRef notification, double seconds, unsigned long* flags) {
    if (seconds != 0) __builtin_trap();
    const unsigned long answer = valueOf<Notification>(notification)->awaitAnswer();
    if (flags) *flags = answer;
    return 0;
}

std::int32_t playedCancel(ObjectRef notification) {
    valueOf<Notification>(notification)->cancel();
    return 0;
}

} // namespace

const ImportTable& notificationImports() {
    constexpr const char* source = "CFUserNotification.c of CF";
    static const auto& table = *new ImportTable{
        function("_CFUserNotificationCreate", playedCreate, source),
        function("_CFUserNotificationReceiveResponse", playedReceive, source),
        function("_CFUserNotificationCancel", playedCancel, source),
    };
    return table;
}

} // namespace machost::corefoundation
