#pragma once

// The directory service that is in force, for a program under machost. A conversation about a node goes on until the
// asker hangs up: "query" with a query's terms, then "results" and "details" with the number of the query or record.

#include "lab/WorldWords.h"

namespace lab {

void answerDirectoryNodes(int connection, const Words& question);
void converseWithNodeOfType(int connection, const Words& question);
void converseWithNamedNode(int connection, const Words& question);

} // namespace lab
