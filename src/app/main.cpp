#include "app/Switches.h"

int main(int argc, char* argv[]) { return ostlerMain(argc, argv); }
