#include "app/Startup.h"

int main(int argc, char** argv) { return lumora::daemonMain(argc, argv); }
