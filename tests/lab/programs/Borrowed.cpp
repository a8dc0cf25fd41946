// A library of a program that has one of its own.

extern "C" const char* borrowedWord() { return "borrowed"; }
