// In the daemon's place: a program with a library of its own.

#include <cstdio>

extern "C" const char* borrowedWord();

int main() { std::printf("the word is %s\n", borrowedWord()); }
