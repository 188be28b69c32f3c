#include "cli/entry.h"

int main(int argc, char** argv) { return sonderlark::run_sonderlark(argc, argv); }
