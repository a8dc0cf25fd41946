#include "support/HostileInputs.h"

#include "agent/AgentFrames.h"
#include "agent/ResponseTable.h"
#include "gp/GPAlgorithm.h"
#include "gp/GPArray.h"
#include "gp/GPDOMElement.h"
#include "gp/GPData.h"
#include "gp/GPDate.h"
#include "gp/GPHTTP.h"
#include "gp/GPMap.h"
#include "gp/GPString.h"
#include "gp/Owned.h"

#include <cstdint>
#include <cstdio>

namespace testsupport {
namespace {

using std::size_t;
using std::string;

// A text, and what is looked for in it.
struct Search {
    string text;
    string needle;
};

template <class Read, class Make>
HostileInput input(const char* name, Read read, Make make) {
    return {name,
            [=](size_t size) -> std::function<void()> { return [read, made = make(size)] { read(made); }; }};
}

void release(GPObject* object) {
    if (object) object->release();
}

void readXml(const string& xml) { release(GPDOMElement::parse(xml.c_str())); }

void readHeaders(const string& lines) {
    int code = 0;
    const auto headers = Owned<GPMap>::adopt(new GPMap);
    GPHTTP::parseAnswer("HTTP/1.1 200 OK\r\n" + lines + "\r\n\r\n", code, *headers);
}

void readChunks(const string& body) { release(GPHTTP::handleChunk(body.c_str())); }

void readDate(const string& date) { release(GPDate::dateFromString(date.c_str())); }

void readBase64(const string& text) {
    release(GPAlgorithm::decodeBase64(text.data(), static_cast<int>(text.size())));
}

void findIn(const Search& search) { GPString(search.text.c_str()).find(search.needle.c_str(), false); }

void findFromTheEnd(const Search& search) { GPString(search.text.c_str()).find(search.needle.c_str(), true); }

void split(const Search& search) { release(GPString(search.text.c_str()).split(search.needle.c_str())); }

void replaceByMore(const Search& search) {
    GPString(search.text.c_str()).replace(search.needle.c_str(), (search.needle + "+").c_str());
}

void removeFrom(const Search& search) { GPString(search.text.c_str()).replace(search.needle.c_str(), ""); }

// As the agent link reads: some bytes at a time, each whole frame into the table.
template <size_t Step>
void readFrames(const string& stream) {
    ResponseTable table;
    string held;
    size_t offset = 0;
    for (size_t arrived = 0;;) {
        AgentFrame frame;
        switch (readAgentFrame(held.data(), held.size(), offset, frame)) {
            case AgentFrameStep::frame:
                table.deliver(frame.sequence, frame.body, frame.bodyLength);
                offset = frame.next;
                break;
            case AgentFrameStep::needMore:
            case AgentFrameStep::end:
                if (arrived >= stream.size()) return;
                held.erase(0, offset);
                offset = 0;
                held.append(stream, arrived, Step);
                arrived += Step;
                break;
            case AgentFrameStep::broken:
                return;
        }
    }
}

// Replies that nobody waits for, taken out again from the last to the first.
void deliverAndTake(const size_t& replies) {
    ResponseTable table;
    for (size_t i = 0; i < replies; ++i)
        table.deliver(static_cast<std::uint32_t>(i), "{}", 2);
    for (size_t i = replies; i > 0; --i) {
        GPString* reply = nullptr;
        if (table.take(static_cast<std::uint32_t>(i - 1), reply)) reply->release();
    }
}

string repeated(const string& piece, size_t size) {
    string text;
    while (text.size() < size)
        text += piece;
    return text;
}

// Pieces with names that differ: `before`, the name, `after`.
template <class NameOf>
string named(const char* before, NameOf nameOf, const char* after, size_t size) {
    string text;
    for (unsigned number = 0; text.size() < size; ++number)
        text += before + nameOf(number) + after;
    return text;
}

string plain(unsigned number) { return std::to_string(number); }

// Names of one hash in a map with any number of buckets: both pairs of bytes weigh the same, 97 * 101 + 50 and
// 98 * 101 - 51.
string colliding(unsigned number) {
    string name;
    for (int bit = 0; bit < 18; ++bit)
        name += number >> bit & 1 ? "b\xcd" : "a2";
    return name;
}

// Each name is the beginning of the next one.
string growingNames(const char* before, const char* after, size_t size) {
    string text;
    for (size_t length = 1; text.size() < size; ++length)
        text += before + string(length, 'n') + after;
    return text;
}

string chunksOfDoublingSize(size_t size) {
    string body;
    for (size_t length = 1; body.size() < size; length *= 2) {
        char digits[20];
        std::snprintf(digits, sizeof digits, "%zx\r\n", length);
        body += digits + string(length, 'x') + "\r\n";
    }
    return body;
}

string frame(std::uint32_t sequence, const string& body) {
    string bytes(agentFrameHeader + body.size(), '\0');
    buildAgentFrame(bytes.data(), bytes.size(), agentLogonFrame, sequence, body.c_str());
    return bytes;
}

string emptyFrames(size_t size) {
    string stream;
    for (std::uint32_t sequence = 0; stream.size() < size; ++sequence)
        stream += frame(sequence, "");
    return stream;
}

Search nearMatchAtTheEnd(size_t size) { return {string(size, 'a'), string(size / 2, 'a') + "b"}; }

Search nearMatchAtTheStart(size_t size) { return {string(size, 'a'), "b" + string(size / 2, 'a')}; }

Search nearMatchInTheMiddle(size_t size) {
    return {string(size, 'a'), string(size / 4, 'a') + "b" + string(size / 4, 'a')};
}

Search shortNearMatches(size_t size) { return {string(size, 'a'), string(30, 'a') + "b"}; }

Search periods(size_t size) { return {repeated("abaabaab", size), repeated("abaabaab", size / 2) + "bb"}; }

Search separators(size_t size) { return {"x" + string(size, ','), ","}; }

Search longSeparators(size_t size) { return {"x" + string(size, 'a'), string(1000, 'a')}; }

// By the rule of replace the result grows with the square of the number of matches, so there are few.
Search fewLongMatches(size_t size) {
    const string match = string(size / 8, 'a') + "b";
    return {repeated(match, size), match};
}

Search overlappingMatches(size_t size) { return {string(size, 'a'), string(size / 2, 'a')}; }

} // namespace

const std::vector<HostileInput>& hostileInputs() {
    static const std::vector<HostileInput> inputs = {
        input("XmlTagOfBlanks", readXml, [](size_t size) { return "<a b" + string(size, ' ') + ">"; }),
        input("XmlTagOfAttributes", readXml,
              [](size_t size) { return "<a b" + named(" ", plain, "=", size) + ">"; }),
        input("XmlTagOfCollidingAttributes", readXml,
              [](size_t size) { return "<a b" + named(" ", colliding, "=", size) + ">"; }),
        input("XmlTagOfGrowingAttributes", readXml,
              [](size_t size) { return "<a b" + growingNames(" ", "=", size) + ">"; }),
        input("XmlTagOfOneAttribute", readXml,
              [](size_t size) { return "<a b" + repeated(" c=1", size) + ">"; }),
        input("XmlTagOfQuotes", readXml, [](size_t size) { return "<a b=" + string(size, '"') + ">"; }),
        input("XmlNestedTags", readXml, [](size_t size) { return repeated("<a>", size); }),
        input("XmlNestedAndClosedTags", readXml,
              [](size_t size) { return repeated("<a>", size / 2) + repeated("</a>", size / 2); }),
        input("XmlSiblings", readXml,
              [](size_t size) { return "<r>" + repeated("<a>1</a>", size) + "</r>"; }),
        input("XmlSelfClosedTags", readXml,
              [](size_t size) { return "<r>" + repeated("<a/>", size) + "</r>"; }),
        input("XmlTopLevelTags", readXml, [](size_t size) { return repeated("<a></a>", size); }),
        input("XmlEndTags", readXml, [](size_t size) { return "<a>" + repeated("</b>", size); }),
        input("XmlUnclosedTags", readXml, [](size_t size) { return repeated("<a ", size); }),
        input("XmlComments", readXml, [](size_t size) { return "<a>" + repeated("<!-->", size) + "</a>"; }),
        input("XmlBrackets", readXml, [](size_t size) { return repeated("<>", size); }),

        input("HeadersOfDistinctNames", readHeaders,
              [](size_t size) { return named("", plain, ": \r\n", size); }),
        input("HeadersOfCollidingNames", readHeaders,
              [](size_t size) { return named("", colliding, ": \r\n", size); }),
        input("HeadersOfGrowingNames", readHeaders,
              [](size_t size) { return growingNames("", ": \r\n", size); }),
        input("HeadersOfOneName", readHeaders, [](size_t size) { return repeated("a: \r\n", size); }),
        input("HeadersWithoutLineFeeds", readHeaders,
              [](size_t size) { return "\n" + repeated("a: \r", size); }),
        input("HeadersOfColons", readHeaders, [](size_t size) { return repeated("\n:::", size); }),
        input("HeadersOfLineFeeds", readHeaders, [](size_t size) { return string(size, '\n'); }),
        input("HeadersOfNearEnds", readHeaders, [](size_t size) { return repeated("\r\n\r", size); }),

        input("ChunksOfOneByte", readChunks, [](size_t size) { return repeated("1\r\nx\r\n", size); }),
        input("ChunksOfDoublingSize", readChunks, chunksOfDoublingSize),
        input("ChunkOfALongSize", readChunks, [](size_t size) { return string(size, '0') + "1\r\nx\r\n"; }),
        input("ChunkBehindBlanks", readChunks, [](size_t size) { return string(size, ' '); }),

        input("DateOfDashes", readDate, [](size_t size) { return "1" + string(size, '-'); }),
        input("DateOfColons", readDate, [](size_t size) { return "1-2-3T4" + string(size, ':'); }),
        input("DateOfDigits", readDate, [](size_t size) { return string(size, '1') + "-1-1"; }),

        input("FindNearMatchAtTheEnd", findIn, nearMatchAtTheEnd),
        input("FindNearMatchAtTheStart", findIn, nearMatchAtTheStart),
        input("FindNearMatchInTheMiddle", findIn, nearMatchInTheMiddle),
        input("FindShortNearMatches", findIn, shortNearMatches),
        input("FindPeriods", findIn, periods),
        input("FindFromTheEnd", findFromTheEnd, nearMatchAtTheStart),
        input("SplitSeparators", split, separators),
        input("SplitLongSeparators", split, longSeparators),
        input("SplitNearMatches", split, nearMatchAtTheEnd),
        input("ReplaceNearMatches", replaceByMore, nearMatchAtTheEnd),
        input("ReplacePeriods", replaceByMore, periods),
        input("ReplaceOverlappingMatches", removeFrom, overlappingMatches),
        input("ReplaceFewLongMatches", replaceByMore, fewLongMatches),

        input("FramesWithoutABody", readFrames<1 << 16>, emptyFrames),
        input("FramesInReadsOfOneByte", readFrames<1>, emptyFrames),
        input("FrameGrowingInSmallReads", readFrames<16>,
              [](size_t size) { return frame(1, string(size, 'x')); }),
        input("FramesOfFourBytes", readFrames<1 << 16>,
              [](size_t size) { return repeated(string("\0\0\0\4", 4), size) + string(12, '\1'); }),
        input("RepliesTakenFromTheLast", deliverAndTake, [](size_t size) { return size / agentFrameHeader; }),

        input("Base64Letters", readBase64, [](size_t size) { return string(size, 'A'); }),
    };
    return inputs;
}

} // namespace testsupport
