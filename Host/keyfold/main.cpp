#include "keyfold/Application.h"

int main(int argc, char** argv) { return kf::runKeyfold(argc, argv); }
