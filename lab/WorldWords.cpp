#include "lab/WorldWords.h"

#include <sys/socket.h>

namespace lab {

Words readWords(int connection) {
    const ssize_t length = recv(connection, nullptr, 0, MSG_PEEK | MSG_TRUNC);
    std::string message(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
    const ssize_t count = recv(connection, message.data(), message.size(), 0);
    message.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    Words words;
    for (std::size_t start = 0, end; (end = message.find('\0', start)) != std::string::npos; start = end + 1)
        words.push_back(message.substr(start, end - start));
    return words;
}

void say(int connection, const Words& words) {
    std::string message;
    for (const std::string& word : words)
        message += word + '\0';
    send(connection, message.data(), message.size(), MSG_NOSIGNAL);
}

} // namespace lab
