#include "Services.h"

int main(int argc, char** argv) { return runServices(argc, argv); }
