#include "support/RefusingServices.h"

#include "platform/ConsoleUser.h"
#include "platform/Directory.h"
#include "platform/FileManager.h"
#include "platform/HardwareRegistry.h"
#include "platform/HostName.h"
#include "platform/InterfaceEntries.h"
#include "platform/KernelControl.h"
#include "platform/NameLookup.h"
#include "platform/NetworkChanges.h"
#include "platform/UrlSession.h"
#include "platform/UserDialog.h"
#include "support/ManualClock.h"

#include <gtest/gtest.h>

namespace testsupport {
namespace {

class RefusingNameLookup final : public platform::NameLookup {
public:
    bool gethostbyname2(const char* name, int, platform::HostEntry&) override {
        ADD_FAILURE() << "nobody played the look-up of " << name;
        return false;
    }

    bool gethostbyname(const char* name, platform::HostEntry&) override {
        ADD_FAILURE() << "nobody played the look-up of " << name;
        return false;
    }
};

class RefusingRegistry final : public platform::HardwareRegistry {
public:
    std::string platformUUID() override {
        ADD_FAILURE() << "nobody played the hardware registry";
        return {};
    }
};

class RefusingDialog final : public platform::UserDialog {
public:
    platform::UserNotification* create(double, unsigned long,
                                       const platform::NotificationDictionary&) override {
        ADD_FAILURE() << "nobody played the dialogs";
        return nullptr;
    }

    bool receiveResponse(platform::UserNotification*, unsigned long& responseFlags) override {
        ADD_FAILURE() << "nobody played the dialogs";
        responseFlags = platform::notificationCancelResponse;
        return false;
    }

    void cancel(platform::UserNotification*) override { ADD_FAILURE() << "nobody played the dialogs"; }

    void release(platform::UserNotification*) override { ADD_FAILURE() << "nobody played the dialogs"; }
};

class RefusingConsoleUser final : public platform::ConsoleUser {
public:
    bool copyName(char*, std::size_t) override {
        ADD_FAILURE() << "nobody played the console user";
        return false;
    }

    Watch* create(const char* name, Callback) override {
        ADD_FAILURE() << "nobody played the watch of the console user " << name;
        return nullptr;
    }

    void run(Watch*) override {}
    void release(Watch*) override {}
};

class RefusingInterfaceEntries final : public platform::InterfaceEntries {
public:
    int open() override {
        ADD_FAILURE() << "nobody played the interface entries";
        return -1;
    }

    bool list(int, char*, int&) override { return false; }
    void close(int) override {}
};

class RefusingNetworkChanges final : public platform::NetworkChanges {
public:
    Watch* create(const char* name, void (*)(), int& error) override {
        ADD_FAILURE() << "nobody played the network changes for " << name;
        error = -1;
        return nullptr;
    }

    void run(Watch*) override {}
    void release(Watch*) override {}
};

class RefusingKernelControl final : public platform::KernelControl {
public:
    int open() override { return refuse(); }
    int controlId(int, const char*, std::uint32_t&) override { return refuse(); }
    int connect(int, std::uint32_t) override { return refuse(); }
    int setOption(int, int, const void*, socklen_t) override { return refuse(); }
    int getOption(int, int, void*, socklen_t&) override { return refuse(); }

private:
    static int refuse() {
        ADD_FAILURE() << "nobody played the kernel control sockets";
        return -1;
    }
};

class RefusingUrlSession final : public platform::UrlSession {
public:
    void downloadTask(const char* url, Completion completion) override { refuse(url, completion); }

    void uploadTask(const char* url, const char*, const std::string&, Completion completion) override {
        refuse(url, completion);
    }

    void runMainLoop(int) override {}

private:
    static void refuse(const char* url, const Completion& completion) {
        ADD_FAILURE() << "nobody played the URL session for " << url;
        completion({{}, 0, "refused"});
    }
};

class RefusingFileManager final : public platform::FileManager {
public:
    platform::FileResult removeItem(const char* path) override { return refuse(path); }
    platform::FileResult moveItem(const char* from, const char*) override { return refuse(from); }

private:
    static platform::FileResult refuse(const char* path) {
        ADD_FAILURE() << "nobody played the file manager for " << path;
        return {false, platform::fileWriteUnknownError, {}};
    }
};

class RefusingDirectory final : public platform::Directory {
public:
    bool nodeNames(std::vector<std::string>&, platform::DirectoryError&) override {
        ADD_FAILURE() << "nobody played the directory's nodes";
        return false;
    }

    platform::DirectoryNodeRef nodeWithType(platform::DirectoryNodeType, platform::DirectoryError&) override {
        ADD_FAILURE() << "nobody played the directory";
        return nullptr;
    }

    platform::DirectoryNodeRef nodeWithName(const std::string& name, platform::DirectoryError&) override {
        ADD_FAILURE() << "nobody played the directory's node " << name;
        return nullptr;
    }

    std::unique_ptr<platform::DirectoryQuery> queryWithNode(const platform::DirectoryNodeRef&,
                                                            const platform::DirectoryQueryTerms& terms,
                                                            platform::DirectoryError&) override {
        ADD_FAILURE() << "nobody played the search for " << terms.queryValue;
        return nullptr;
    }
};

class RefusingHostName final : public platform::HostName {
public:
    std::optional<std::string> currentHostName() override {
        ADD_FAILURE() << "nobody played the host's name";
        return std::nullopt;
    }

    std::string homeDirectory() override {
        ADD_FAILURE() << "nobody played the home directory";
        return {};
    }
};

RefusingNameLookup refusingNameLookup;
RefusingRegistry refusingRegistry;
RefusingDialog refusingDialog;
RefusingConsoleUser refusingConsoleUser;
RefusingInterfaceEntries refusingInterfaceEntries;
RefusingNetworkChanges refusingNetworkChanges;
RefusingKernelControl refusingKernelControl;
RefusingUrlSession refusingUrlSession;
RefusingFileManager refusingFileManager;
RefusingDirectory refusingDirectory;
RefusingHostName refusingHostName;

} // namespace

void installRefusingServices() {
    platform::clockService.install(ManualClock::installed());
    platform::nameLookupService.install(refusingNameLookup);
    platform::hardwareRegistryService.install(refusingRegistry);
    platform::userDialogService.install(refusingDialog);
    platform::consoleUserService.install(refusingConsoleUser);
    platform::interfaceEntriesService.install(refusingInterfaceEntries);
    platform::networkChangesService.install(refusingNetworkChanges);
    platform::kernelControlService.install(refusingKernelControl);
    platform::urlSessionService.install(refusingUrlSession);
    platform::fileManagerService.install(refusingFileManager);
    platform::directoryService.install(refusingDirectory);
    platform::hostNameService.install(refusingHostName);
}

} // namespace testsupport
