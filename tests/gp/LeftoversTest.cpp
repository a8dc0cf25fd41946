// Operations of the library that must leave no allocation behind once their results are given back. What a rule leaves
// on purpose (names that stay valid, listed files, retired arrays) is tested with its class.

#include "gp/GPAlgorithm.h"
#include "gp/GPArray.h"
#include "gp/GPDOMElement.h"
#include "gp/GPData.h"
#include "gp/GPDate.h"
#include "gp/GPFilesystem.h"
#include "gp/GPHTTP.h"
#include "gp/GPList.h"
#include "gp/GPLog.h"
#include "gp/GPMap.h"
#include "gp/GPMutex.h"
#include "gp/GPNetDevice.h"
#include "gp/GPSockets.h"
#include "gp/GPString.h"
#include "gp/GPSyncdArray.h"
#include "gp/GPTask.h"
#include "gp/GPThreadPool.h"
#include "gp/GPTimer.h"
#include "gp/Owned.h"
#include "support/AllocationCounter.h"
#include "support/AnswerServer.h"
#include "support/CapturedLog.h"
#include "support/LoopbackPeer.h"
#include "support/ManualClock.h"
#include "support/Objects.h"
#include "support/PlayedInterfaces.h"
#include "support/PlayedNames.h"
#include "support/TemporaryFolder.h"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace {

struct Operation {
    const char* name;
    std::function<void()> run;
};

// Twice first: what is made once for all stays.
void expectNothingLeft(const std::vector<Operation>& operations) {
    for (const Operation& operation : operations) {
        operation.run();
        operation.run();
        long left = 0;
        {
            const testsupport::AllocationCounter allocations;
            operation.run();
            left = allocations.left();
        }
        EXPECT_EQ(left, 0) << operation.name;
    }
}

void giveBack(GPObject* owned) {
    if (owned) owned->release();
}

TEST(Leftovers, OfTexts) {
    const testsupport::PoolScope pool;
    expectNothingLeft({
        {"format", [] { giveBack(GPString::format("%d %s", 7, "text")); }},
        {"split and join",
         [] {
             GPString text("a,b,,c");
             const GPString comma(",");
             const auto parts = Owned<GPArray>::adopt(text.split(&comma));
             giveBack(parts->join("-"));
             giveBack(GPString::join(parts.get(), &comma));
             giveBack(text.split(";"));
         }},
        {"changes",
         [] {
             GPString text(" One & Two ");
             text.append("three")->append("four", 2)->appendFormat("%d", 5);
             text.replace("e", "ee")->subString(1, 9)->trim()->lowercase()->uppercase();
             text.encode()->decode();
             text += "end";
             text.domDecode();
             text.reverse();
             text.reset("short");
             giveBack(text.copy());
         }},
        {"bytes",
         [] {
             const auto data = Owned<GPData>::adopt(GPData::dataWithData("some bytes", 10));
             data->append("more", 4);
             data->append(data.get());
             giveBack(data->convertToString());
             data->clear();
             giveBack(GPData::dataWithSize(30));
         }},
    });
}

TEST(Leftovers, OfCodesAndIdentifiers) {
    const auto code = Owned<GPData>::adopt(GPAlgorithm::encodeBase64("some bytes", 10));
    const auto secret = Owned<GPString>::adopt(GPAlgorithm::blowfishEncryptText("some text", "key"));
    expectNothingLeft({
        {"base64",
         [&] {
             giveBack(GPAlgorithm::encodeBase64(code.get()));
             giveBack(GPAlgorithm::decodeBase64(code.get()));
             giveBack(GPAlgorithm::decodeBase64("c29tZQ==", 8));
         }},
        {"blowfish",
         [&] {
             giveBack(GPAlgorithm::blowfishEncrypt("some bytes", 10, "key"));
             giveBack(GPAlgorithm::blowfishEncryptText("some text", "key"));
             giveBack(GPAlgorithm::blowfishDecryptText(secret->cstr(), "key"));
             giveBack(GPAlgorithm::blowfishCreateKey(16));
         }},
        {"identifiers",
         [] {
             giveBack(GPAlgorithm::generateGUID(7));
             GPString address("00:1b:63:84:45:e6");
             giveBack(GPAlgorithm::identifierForMACAddress(&address));
         }},
    });
}

TEST(Leftovers, OfContainers) {
    expectNothingLeft({
        {"array",
         [] {
             GPObject object;
             GPArray array(1);
             for (int i = 0; i < 9; ++i)
                 array.addObject(&object);
             array.removeObjectAtIndex(0);
             array.removeObject(&object);
             array.safe();
             array.removeAllObjects();
             array.safeRetain();
             array.release();
         }},
        {"list",
         [] {
             GPObject object;
             GPList list;
             list.safe();
             list.push(&object);
             list.insertObject(0, &object);
             list.addObject(&object);
             list.pop();
             list.removeObjectAtIndex(0);
         }},
        {"map",
         [] {
             GPMap map(2);
             map.safe();
             map.setObject(new GPString("1"), "a");
             map.setObject(new GPString("2"), "a");
             map.setNewObject(new GPString("3"), "b");
             map.removeObjectForKey("a");
             map.removeObjectForKey("absent");
         }},
        {"pool",
         [] {
             auto* pool = new GPAutoReleasePool;
             (new GPString("text"))->autorelease();
             pool->drain();
         }},
        {"thread pool and lock",
         [] {
             GPThreadPool pool(3);
             GPMutex mutex;
             const GPMutexLock lock(&mutex);
             GPTimer timer(true);
         }},
    });
    static auto& synced = *new GPSyncdArray(5); // lives for the whole run
    GPString text("text");
    synced.addString(&text);
    expectNothingLeft({{"shared array", [&text] {
                            GPString absent("absent");
                            synced.findStringObject("text");
                            synced.addString(&text);
                            synced.removeString(&absent);
                            synced.removeObject(&absent);
                            synced.getArray()->release();
                        }}});
}

TEST(Leftovers, OfDocuments) {
    constexpr char text[] = "<?xml version=\"1.0\"?><a one=\"1\" two='2'><b>x</b><c><d/></c><b>y</b></a><e/>";
    expectNothingLeft({
        {"reading and writing",
         [=] {
             const auto root = Owned<GPDOMElement>::adopt(GPDOMElement::parse(text));
             giveBack(root->convertToString(true, "plist", true));
             giveBack(root->convertToString(false, nullptr, false));
             giveBack(root->convertToPlist(true));
             giveBack(root->findElements("b"));
         }},
        {"removing",
         [=] {
             const auto root = Owned<GPDOMElement>::adopt(GPDOMElement::parse(text));
             root->removeElement("d");
             root->removeElements("b");
             root->removeElement(root->findElement("c"));
         }},
        {"making",
         [] {
             const auto attributes = Owned<GPMap>::adopt(new GPMap);
             const auto parent =
                 Owned<GPDOMElement>::adopt(GPDOMElement::createElement("a", attributes.get(), "x"));
             const auto child = Owned<GPDOMElement>::adopt(GPDOMElement::createElement("b"));
             parent->addElement(child.get());
         }},
    });
}

TEST(Leftovers, OfDates) {
    expectNothingLeft({{"dates", [] {
                            const testsupport::PoolScope pool;
                            for (const char* text : {"2019-02-15", "2019-02-15T10:30:00Z", "2019-02", "none"})
                                giveBack(GPDate::dateFromString(text));
                            const auto now = Owned<GPDate>::adopt(GPDate::now());
                            now->toString();
                            now->ISOString(true);
                            now->setHour(3);
                            giveBack(GPDate::UTC());
                        }}});
}

TEST(Leftovers, OfTheLog) {
    const testsupport::CapturedLog log;
    setMaxLogSize(1);
    setMaxLogCount(1);
    expectNothingLeft({{"lines and rotations", [] {
                            for (int line = 0; line < 4; ++line)
                                logf("%s %d", std::string(600, 'x').c_str(), line);
                        }}});
}

TEST(Leftovers, OfFilesAndTasks) {
    const testsupport::CapturedLog log;
    const testsupport::TemporaryFolder folder;
    const std::string path = folder.file("file");
    const std::string other = folder.file("other");
    testsupport::ManualClock::installed().letSleepsPass(true);
    setenv("PATH", folder.path().c_str(), 1);
    expectNothingLeft({
        {"files",
         [&] {
             GPString text("content");
             writeText(path.c_str(), &text, true);
             giveBack(readText(path.c_str(), 0, 0));
             giveBack(readData(path.c_str(), 0, 3));
             copyFile(path.c_str(), other.c_str());
             deleteFile(other.c_str());
         }},
        {"a file",
         [&] {
             const auto file = Owned<GPFilesystem>::adopt(GPFilesystem::createFile(path.c_str()));
             file->writeFormat("%d", 7);
             giveBack(file->readText(0, 0));
             giveBack(file->read(0, 0));
             file->renameFile(other.c_str());
             file->renameFile(path.c_str());
             file->setPath(other.c_str());
         }},
        {"a folder that does not open",
         [&] {
             GPArray found;
             getDirectoryFiles(other.c_str(), &found, true, GPFileSearchAll);
         }},
        {"tasks",
         [] {
             giveBack(GPTask::task("/bin/echo text", true, false));
             giveBack(GPTask::task("/bin/echo text", false, false));
             giveBack(GPTask::task("no-such-program", true, false));
         }},
        {"words", [] { giveBack(GPTask::splitCommandLine("echo 'a b' c")); }},
    });
}

TEST(Leftovers, OfDevices) {
    const testsupport::CapturedLog log;
    auto& interfaces = *new testsupport::PlayedInterfaces;
    interfaces.install();
    interfaces.show(testsupport::EntryBuilder()
                        .link("lo0")
                        .ipv4("lo0", "127.0.0.1")
                        .link("en0", std::string("\x00\x1b\x63\x84\x45\xe6", 6))
                        .ipv6("en0", "fe80::1")
                        .ipv4("en0", "10.0.0.2")
                        .link("en1", std::string("\x00\x1b\x63\x84\x45\xe7", 6)));
    const auto failing = [&](int call) {
        interfaces.failAtCall(call);
        giveBack(GPNetDevice::deviceList(GPIPTypeAny));
        interfaces.failAtCall(0);
    };
    expectNothingLeft({
        {"devices",
         [] {
             giveBack(GPNetDevice::deviceList(GPIPTypeAny));
             giveBack(GPNetDevice::deviceList(GPIPTypeV4));
             giveBack(GPNetDevice::ipAddresses(GPIPTypeAny));
             giveBack(GPNetDevice::macAddresses(GPIPTypeAny));
         }},
    });
    failing(1);
}

TEST(Leftovers, OfConnections) {
    const testsupport::CapturedLog log;
    auto& names = *new testsupport::PlayedNames;
    names.answer("server.test", AF_INET, {"127.0.0.1"});
    names.answer("127.0.0.1", AF_INET, {"127.0.0.1"});
    names.install();
    testsupport::ManualClock::installed().setEventWait(5000000, false);
    testsupport::LoopbackListener listener;
    expectNothingLeft({{"a connection", [&] {
                            GPSockets socket(listener.port(), "server.test");
                            socket.openConnection();
                            socket.writeString("text");
                            testsupport::Peer peer = listener.accept();
                            peer.send("answer");
                            giveBack(socket.readString());
                            peer.send("again");
                            giveBack(socket.readData());
                            socket.setServer("other.test");
                            socket.openConnection();
                        }}});

    testsupport::AnswerServer server(std::vector<std::string>(
        6, "HTTP/1.1 200 OK\r\nName: value\r\nTransfer-Encoding: chunked\r\n\r\n4\r\ntext\r\n0\r\n\r\n"));
    expectNothingLeft({{"requests", [&] {
                            GPHTTP request(server.url("/path").c_str());
                            request.setUserAgent("agent");
                            request.setUserAgent("another");
                            request.addHeader("Extra", "value");
                            request.addPostValue("field", "value");
                            request.startSync();
                            request.responseHeader("Name");
                            giveBack(request.responseString());
                            giveBack(request.responseData());
                            request.startSync();
                            request.setURL("http://nobody.test/");
                            request.startSync();
                            giveBack(request.responseData());
                        }}});
}

} // namespace
