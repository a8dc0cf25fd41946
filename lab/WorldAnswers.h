#pragma once

namespace lab {

// Reads the one question of a connection and answers it by the services that are in force. Returns when the answer is
// whole or the asker has gone; may block as long as the service does. Any thread.
void answerQuestion(int connection);

} // namespace lab
