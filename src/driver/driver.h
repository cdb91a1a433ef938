// The run driver: settings, input, the length loop, descriptors and files.
#pragma once

// Runs the whole program; returns 1, the exit status of a complete run.
// Every failure ends the process inside with its own message and status.
int run_tavrix(int argc, char** argv);
