// Sessions and their tasks, as the program's messages reach them.

#include "machost/Block.h"
#include "machost/Imports.h"
#include "machost/objc/Messages.h"
#include "machost/objc/Pools.h"
#include "machost/objects/Object.h"
#include "support/Eventually.h"
#include "support/Patience.h"

#include <gtest/gtest.h>
#include <sys/types.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <string>

namespace {

using machost::Block;
using machost::ObjectRef;
using machost::objc::send;

ObjectRef classNamed(const std::string& name) {
    const machost::Import* import = machost::findImport("", "_OBJC_CLASS_$_" + name);
    return const_cast<void*>(import->address);
}

std::mutex lock;
std::condition_variable called;
std::int64_t toldCode = 0;
pid_t teller = 0;

void complete(void*, ObjectRef, ObjectRef, ObjectRef error) {
    const std::lock_guard<std::mutex> guard(lock);
    teller = gettid();
    toldCode = error ? send<std::int64_t>(error, "code") : 1;
    called.notify_all();
}

const machost::BlockDescriptor descriptor{0, sizeof(Block), nullptr, nullptr};
Block handler{nullptr, machost::blockIsGlobal, 0, reinterpret_cast<void (*)(void*, ...)>(&complete),
              &descriptor};

class Sessions : public testing::Test {
protected:
    ObjectRef makeSession() {
        ObjectRef configuration =
            send<ObjectRef>(classNamed("NSURLSessionConfiguration"), "defaultSessionConfiguration");
        return send<ObjectRef>(classNamed("NSURLSession"), "sessionWithConfiguration:", configuration);
    }

    // A task that the session refuses, since its request names no address.
    ObjectRef makeTask(ObjectRef session) {
        ObjectRef request =
            machost::objc::autorelease(reinterpret_cast<ObjectRef (*)(ObjectRef)>(const_cast<void*>(
                machost::findImport("", "_objc_alloc")->address))(classNamed("NSMutableURLRequest")));
        return send<ObjectRef>(session, "uploadTaskWithRequest:fromData:completionHandler:", request,
                               ObjectRef{}, &handler);
    }
};

TEST_F(Sessions, StayUntilTheyAreInvalidated) {
    ObjectRef session = nullptr;
    {
        const machost::objc::Pool pool;
        session = makeSession();
    }
    EXPECT_EQ(machost::reportLeaks(), 1);
    send<void>(session, "finishTasksAndInvalidate");
    EXPECT_EQ(machost::reportLeaks(), 0);
}

TEST_F(Sessions, ThatAreInvalidatedGoWithTheirLastTask) {
    {
        const machost::objc::Pool pool;
        ObjectRef session = makeSession();
        send<void>(makeTask(session), "resume");
        send<void>(session, "finishTasksAndInvalidate");
    }
    std::unique_lock<std::mutex> guard(lock);
    EXPECT_TRUE(called.wait_for(guard, testsupport::patience, [] { return toldCode != 0; }));
    EXPECT_EQ(toldCode, -1002);
    guard.unlock();
    // What a running thread made would not be told.
    EXPECT_TRUE(testsupport::eventually([] { return machost::isOwnThreadOrGone(teller); }));
    EXPECT_EQ(machost::reportLeaks(), 0);
}

} // namespace
