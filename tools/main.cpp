#include "tools/program.h"

int main(int argc, char** argv) { return portsvc::tools::portctl(argc, argv); }
