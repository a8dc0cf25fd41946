#pragma once

// One HTTP/1.1 exchange over a socket of its own: the request from a fixed template, the answer until the
// connection ends or falls silent. No redirects, no retries, no keep-alive, no cookies.
//
// A request belongs to one thread at a time; after startAsync the caller leaves it alone until the completion
// runs.

#include "gp/GPObject.h"

#include <string_view>

class GPData;
class GPMap;
class GPSockets;
class GPString;

enum GPHTTPMethod {
    GPHTTPMethodGet = 0,
    GPHTTPMethodPost = 1,
    GPHTTPMethodPut = 2, // not supported: nothing is sent
    GPHTTPMethodHead = 3,
    GPHTTPMethodDelete = 4,
};

class GPHTTP : public GPObject {
public:
    explicit GPHTTP(const char* url);
    ~GPHTTP() override;

    // A new request: in the calling thread's pool with `autorelease`, else the caller's to release.
    static GPHTTP* requestWithURL(const char* url, bool autorelease);

    // Takes a URL apart and puts everything else back to its start: GET, 5 seconds, no fields, no answer.
    void setURL(const char* url);

    void setHTTPMethod(GPHTTPMethod method) { method_ = method; }
    int port() const { return port_; }
    // Only port 443 speaks TLS, whatever the URL's scheme was.
    void setPort(int port) { port_ = port; }
    // Seconds for each wait on the socket.
    void setTimeout(int seconds) { timeout_ = seconds; }
    void setUserAgent(const char* userAgent);

    // Adds a form field and makes the method POST, unless it is PUT.
    void addPostValue(const char* name, const char* value);
    void addHeader(const char* name, const char* value);

    // Makes the method PUT and does nothing else.
    void uploadFile(const char* name, const char* path);

    // Runs the exchange on the calling thread.
    void startSync();

    // Runs the exchange on a background thread, which then calls `completion`. The request is kept alive
    // meanwhile.
    void startAsync(void* (*completion)(GPHTTP*));

    // The status code; 0 when there is none.
    int responseCode();

    // The answer's body as an owned text, put together if it is chunked; null without an answer. An answer
    // with an empty body gives the whole answer, headers included.
    GPString* responseString();

    // The bytes behind the headers, as they came, or the whole answer if it has no HTTP headers; null without
    // an answer. The caller releases the result.
    GPData* responseData();

    // Length of the whole answer.
    int responseLength() const;

    // A header of the answer by its exact name, or null; borrowed.
    GPString* responseHeader(const char* name);

    // Numeric text of the server, or null; borrowed.
    const char* IPAddress() const;

    // Whether a HEAD of the URL is answered with status 200.
    static bool checkIfExist(const char* url);

    // The body of a GET as an owned text, or null.
    static GPString* getTextRequest(const char* url);

    // Stores the body of a GET in a file, replacing it; false when nothing came or it cannot be written.
    static bool downloadFile(const char* url, const char* path);

    // Keeps the pointer, not a copy. For program start.
    static void setDefaultUserAgent(const char* userAgent);

    // Reads code and headers of the answer, once. False without an answer, and the first time for an answer
    // without a header block.
    bool parseResponse();

    // Reads the status code, if there is one, and the headers of an answer into `code` and the empty map
    // `headers`. False if the answer has no header block. Any bytes.
    static bool parseAnswer(std::string_view answer, int& code, GPMap& headers);

    // The data of a chunked body as an owned text, up to the last chunk or to where the framing breaks.
    static GPString* handleChunk(const char* text);

private:
    static const char* Default_UserAgent;

    static void* backgroundThread(void* request);

    void defaultFromScheme(const char* scheme);
    void startSocket();
    GPString* requestText();
    GPString* headerLines();
    GPString* postBody();
    void sendAndReceive(GPSockets& socket, GPString& request);
    void releaseFields();

    int timeout_ = 5;
    int port_ = 80;
    GPString* host_ = nullptr;
    GPString* path_ = nullptr;
    GPHTTPMethod method_ = GPHTTPMethodGet;
    GPData* response_ = nullptr;
    int code_ = 0;
    GPString* userAgent_ = nullptr;
    GPMap* postValues_ = nullptr;
    GPMap* headers_ = nullptr;
    GPString* ipAddress_ = nullptr;
    GPMap* responseHeaders_ = nullptr;
    void* (*completion_)(GPHTTP*) = nullptr;
};
