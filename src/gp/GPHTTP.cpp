#include "gp/GPHTTP.h"

#include "gp/GPData.h"
#include "gp/GPFilesystem.h"
#include "gp/GPLog.h"
#include "gp/GPMap.h"
#include "gp/GPSockets.h"
#include "gp/GPString.h"
#include "gp/GPThread.h"
#include "gp/NamedText.h"
#include "gp/Owned.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr const char* headerEnd = "\r\n\r\n";
constexpr std::size_t headerEndLength = 4;
constexpr auto npos = std::string_view::npos;

struct SchemePort {
    const char* scheme;
    int port;
};

// The ports of ftp and imap are not the usual ones.
constexpr SchemePort schemePorts[] = {{"https", 443}, {"http", 80}, {"ftp", 22}, {"smtp", 25},
                                      {"imap", 142},  {"pop", 110}, {"ssh", 22}};

template <class Object>
void releaseField(Object*& field) {
    if (field) field->release();
    field = nullptr;
}

void setText(GPMap*& map, const char* name, const char* value) {
    if (!name || !value) return;
    if (!map) map = new GPMap;
    map->setObject(GPString::staticstring(value), name);
}

const char* textForKey(GPMap* map, const char* key) {
    auto* text = static_cast<GPString*>(map->objectForKey(key));
    return text ? text->cstr() : nullptr;
}

bool isSpace(char character) { return std::isspace(static_cast<unsigned char>(character)) != 0; }

// The text up to its first NUL, without whitespace at both ends.
std::string_view trimmed(std::string_view text) {
    text = text.substr(0, text.find('\0'));
    while (!text.empty() && isSpace(text.back()))
        text.remove_suffix(1);
    while (!text.empty() && isSpace(text.front()))
        text.remove_prefix(1);
    return text;
}

std::string_view bytesOf(const GPData& data) {
    return {data.bytes(), static_cast<std::size_t>(data.length())};
}

// The integer behind the first blank, if a digit stands there; otherwise `code` as it was.
int statusCode(std::string_view answer, int code) {
    const auto blank = answer.find(' ');
    if (blank == npos) return code;
    const std::string digits(answer.substr(blank + 1, 12));
    if (digits.empty() || !std::isdigit(static_cast<unsigned char>(digits[0]))) return code;
    return static_cast<int>(std::strtol(digits.c_str(), nullptr, 10));
}

// The headers of the block, the last of each name, up to one whose value cannot be taken. The block ends with a carriage return.
std::vector<NamedText> readHeaders(std::string_view block) {
    LastOfEachName headers;
    const auto lastLineFeed = block.rfind('\n');
    auto lineEnd = block.find('\n');
    while (lineEnd != npos) {
        const auto place = lineEnd + 1;
        const auto colon = block.find(':', place);
        if (colon == npos) break;
        // Looked for where it is alone: a search in vain for each line would read the block as many times.
        lineEnd = block.find(colon < lastLineFeed ? '\n' : '\r', colon);
        // Two behind the colon whatever stands there: a value without a blank loses its first character, and a
        // line that ends before that place ends the reading.
        const auto value = colon + 2;
        if (lineEnd < value) break;
        headers.add(
            {trimmed(block.substr(place, colon - place)), trimmed(block.substr(value, lineEnd - value + 1))});
    }
    return headers.take();
}

} // namespace

const char* GPHTTP::Default_UserAgent =
    "Mozilla/5.0 (Macintosh; Intel Mac OS X 10_7_3) AppleWebKit/534.53.11 (KHTML, like Gecko) "
    "Version/5.1.3 Safari/534.53.10";

void GPHTTP::setDefaultUserAgent(const char* userAgent) { Default_UserAgent = userAgent; }

GPHTTP::GPHTTP(const char* url) { setURL(url); }

GPHTTP::~GPHTTP() { releaseFields(); }

GPHTTP* GPHTTP::requestWithURL(const char* url, bool autorelease) {
    auto* request = new GPHTTP(url);
    if (autorelease) request->autorelease();
    return request;
}

void GPHTTP::releaseFields() {
    releaseField(host_);
    releaseField(path_);
    releaseField(userAgent_);
    releaseField(response_);
    releaseField(postValues_);
    releaseField(headers_);
    releaseField(responseHeaders_);
    releaseField(ipAddress_);
}

void GPHTTP::setURL(const char* url) {
    // Copied first: it can be a text of the answer that goes, such as a Location.
    const std::string text = url ? url : "";
    timeout_ = 5;
    port_ = 80;
    code_ = 0;
    method_ = GPHTTPMethodGet;
    releaseFields();

    std::string rest = text;
    const auto colon = text.find(':');
    if (colon != npos && colon > 0 && text[colon + 1] == '/') {
        defaultFromScheme(text.substr(0, colon).c_str());
        rest = text.substr(std::min(colon + 3, text.size()));
    }
    const auto slash = rest.find('/');
    if (slash == npos || slash == 0) {
        // Without a path a port stays in the host text and does not count.
        host_ = new GPString(rest.c_str());
        path_ = new GPString("/");
        return;
    }
    path_ = new GPString(rest.substr(slash).c_str());
    std::string host = rest.substr(0, slash);
    const auto portColon = host.find(':');
    if (portColon != npos) {
        port_ = GPString(host.c_str() + portColon + 1).intValue();
        host.resize(portColon);
    }
    host_ = new GPString(host.c_str());
}

void GPHTTP::defaultFromScheme(const char* scheme) {
    for (const auto& known : schemePorts)
        if (std::strcmp(scheme, known.scheme) == 0) port_ = known.port;
}

void GPHTTP::setUserAgent(const char* userAgent) {
    releaseField(userAgent_);
    if (userAgent) userAgent_ = new GPString(userAgent);
}

void GPHTTP::addPostValue(const char* name, const char* value) {
    if (method_ != GPHTTPMethodPut) method_ = GPHTTPMethodPost;
    setText(postValues_, name, value);
}

void GPHTTP::addHeader(const char* name, const char* value) { setText(headers_, name, value); }

void GPHTTP::uploadFile(const char*, const char*) { method_ = GPHTTPMethodPut; }

void GPHTTP::startSync() { startSocket(); }

void GPHTTP::startAsync(void* (*completion)(GPHTTP*)) {
    completion_ = completion;
    retain();
    GPThread::taskOnBackground(backgroundThread, this);
}

void* GPHTTP::backgroundThread(void* request) {
    auto* self = static_cast<GPHTTP*>(request);
    self->startSocket();
    if (self->completion_) self->completion_(self);
    self->release();
    return nullptr;
}

void GPHTTP::startSocket() {
    if (!host_) return;
    const auto socket = Owned<GPSockets>::adopt(new GPSockets);
    socket->setTimeout(timeout_);
    socket->setPort(port_);
    socket->setServer(host_->cstr());
    if (!socket->openConnection()) {
        logf("WARNING: Socket open error in GPHTTP.");
        return;
    }
    releaseField(response_);
    releaseField(ipAddress_);
    if (socket->IPAddress()) ipAddress_ = new GPString(socket->IPAddress());
    const auto request = Owned<GPString>::adopt(requestText());
    if (request) sendAndReceive(*socket, *request);
    socket->closeConnection();
}

void GPHTTP::sendAndReceive(GPSockets& socket, GPString& request) {
    if (!socket.writeData(&request)) {
        logf("Info: GPHTTP socket send failed.");
        return;
    }
    // Gathered first: a GPData would copy all that it holds for each piece.
    std::string answer;
    while (const auto piece = Owned<GPData>::adopt(socket.readData())) {
        const std::string_view bytes = bytesOf(*piece);
        if (bytes.size() > INT_MAX - answer.size()) break;
        answer += bytes;
    }
    if (!answer.empty()) response_ = GPData::dataWithData(answer.data(), static_cast<int>(answer.size()));
}

// Null for PUT.
GPString* GPHTTP::requestText() {
    const char* agent = userAgent_ ? userAgent_->cstr() : Default_UserAgent;
    const auto extra = Owned<GPString>::adopt(headerLines());
    const char* path = path_->cstr();
    const char* host = host_->cstr();
    const auto withoutBody = [&](const char* verb) {
        return GPString::format("%s %s HTTP/1.1\r\nHost: %s\r\nUser-Agent: %s\r\nConnection: close\r\n%s\r\n",
                                verb, path, host, agent, extra->cstr());
    };
    switch (method_) {
        case GPHTTPMethodHead:
            return withoutBody("HEAD");
        case GPHTTPMethodGet:
            return withoutBody("GET");
        case GPHTTPMethodDelete:
            return withoutBody("DELETE");
        case GPHTTPMethodPost: {
            const auto body = Owned<GPString>::adopt(postBody());
            return GPString::format("POST %s HTTP/1.1\r\nHost: %s\r\nUser-Agent: %s\r\nContent-Type: "
                                    "application/x-www-form-urlencoded\r\nContent-Length: %d\r\n"
                                    "Connection: close\r\n%s\r\n%s",
                                    path, host, agent, body->length(), extra->cstr(), body->cstr());
        }
        default:
            logf("ERROR: GPHTTP PUT request not supported.");
            return nullptr;
    }
}

GPString* GPHTTP::headerLines() {
    auto* lines = new GPString;
    if (!headers_) return lines;
    // The blank in front of the colon belongs to the format.
    for (const char* name = headers_->firstKey(); name; name = headers_->nextKey()) {
        if (const char* value = textForKey(headers_, name)) lines->appendFormat("%s : %s\r\n", name, value);
    }
    return lines;
}

GPString* GPHTTP::postBody() {
    auto* body = new GPString;
    if (!postValues_) return body;
    // The first key comes from the fields, each further one from the headers' key walk, which the
    // header lines have used up by now. So one field comes out.
    const char* name = postValues_->firstKey();
    while (name) {
        if (const char* value = textForKey(postValues_, name))
            body->appendFormat("%s%s=%s", body->length() > 0 ? "&" : "", name, value);
        name = headers_ ? headers_->nextKey() : nullptr;
    }
    return body;
}

bool GPHTTP::parseResponse() {
    if (!response_) return false;
    if (responseHeaders_) return true;
    responseHeaders_ = new GPMap;
    return parseAnswer(bytesOf(*response_), code_, *responseHeaders_);
}

bool GPHTTP::parseAnswer(std::string_view answer, int& code, GPMap& headers) {
    code = statusCode(answer, code);
    const auto blockEnd = answer.find(headerEnd);
    if (blockEnd == npos) return false;
    for (const NamedText& header : readHeaders(answer.substr(0, blockEnd + 1)))
        headers.setNewObject(new GPString(header.value.data(), static_cast<int>(header.value.size())),
                             header.name);
    return true;
}

int GPHTTP::responseCode() {
    if (code_ == 0) parseResponse();
    return code_;
}

GPString* GPHTTP::responseHeader(const char* name) {
    if (!responseHeaders_ || responseHeaders_->count() == 0) parseResponse();
    return responseHeaders_ ? static_cast<GPString*>(responseHeaders_->objectForKey(name)) : nullptr;
}

const char* GPHTTP::IPAddress() const { return ipAddress_ ? ipAddress_->cstr() : nullptr; }

int GPHTTP::responseLength() const { return response_ ? response_->length() : 0; }

GPString* GPHTTP::responseString() {
    if (!response_) return nullptr;
    auto text = Owned<GPString>::adopt(response_->convertToString());
    if (!text || !parseResponse()) return text.handOver();
    const int separator = text->find(headerEnd, false);
    const GPString* encoding = responseHeader("Transfer-Encoding");
    if (separator >= 0 && encoding && encoding->isEqual("chunked"))
        return handleChunk(text->cstr() + separator + headerEndLength);
    // With an empty body the whole answer stays, headers included.
    const int body = separator + static_cast<int>(headerEndLength);
    if (separator >= 1 && body < text->length()) text->subString(body);
    return text.handOver();
}

GPString* GPHTTP::handleChunk(const char* text) {
    std::string data;
    const char* const textEnd = text + std::strlen(text);
    char* sizeEnd = nullptr;
    long size = std::strtol(text, &sizeEnd, 16);
    // A first size of 0 makes its pass all the same, and the size behind it decides; a later one ends the data.
    do {
        if (size < 0 || textEnd - sizeEnd < 2) break;
        const char* chunk = sizeEnd + 2;
        const long present = std::min<long>(size, textEnd - chunk);
        data.append(chunk, static_cast<std::size_t>(present));
        if (textEnd - chunk - present < 2) break;
        size = std::strtol(chunk + present + 2, &sizeEnd, 16);
    } while (size != 0);
    return new GPString(data.c_str());
}

GPData* GPHTTP::responseData() {
    if (!response_) return nullptr;
    const std::string_view answer = bytesOf(*response_);
    const auto separator = answer.find(headerEnd);
    if (answer.substr(0, 6) != "HTTP/1" || !parseResponse() || separator == npos) {
        response_->retain();
        return response_;
    }
    const std::string_view body = answer.substr(separator + headerEndLength);
    return GPData::dataWithData(body.data(), static_cast<int>(body.size()));
}

bool GPHTTP::checkIfExist(const char* url) {
    GPHTTP request(url);
    request.setHTTPMethod(GPHTTPMethodHead);
    request.startSync();
    return request.responseCode() == 200;
}

GPString* GPHTTP::getTextRequest(const char* url) {
    GPHTTP request(url);
    request.startSync();
    return request.responseString();
}

bool GPHTTP::downloadFile(const char* url, const char* path) {
    GPHTTP* request = requestWithURL(url, true);
    request->setTimeout(20);
    request->startSync();
    const auto data = Owned<GPData>::adopt(request->responseData());
    return data && writeData(path, data.get(), true);
}
