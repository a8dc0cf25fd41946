#pragma once

// Calls what the shipped program has but starts from no switch, and the services behind it, and prints what came: the
// search in the directory, the tables for safe search, files, transfers, names. Built for this system and for the Mac.

// The first word says what is called:
//   search USER                      the whole search for a user; with "nodes" in place of a user the nodes' names
//   find NODE TYPE ATTRIBUTE VALUE   one query; "/" stands for the search node
//   hosts                            pins the fixed hosts
//   fetch URL, send URL METHOD DATA  a transfer
//   remove PATH, move FROM TO        a file operation
//   component URL                    the last component
//   host                             the host's name and the user's home
//   loop SECONDS                     lets the session's events run
//   ask SECONDS HEADER BUTTON        a dialog, with a second button unless that is empty; SIGUSR1 takes it away
// Answers the status of the process.
int runServices(int count, char** words);
