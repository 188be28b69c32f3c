#pragma once

// sonderlark-doctor: checks an array and its surroundings before a run is
// trusted. Each check gives one Check; the program prints them in order.

#include <optional>

#include "doctor/checks.h"

namespace sonderlark {

// Fills `options` from the command line. Nothing when the run goes on;
// else the exit status to end with, after the usage: 0 for --help, 2 for a
// refused line (its message on standard error).
std::optional<int> parse_doctor_args(int argc, char** argv, DoctorOptions& options);

void print_doctor_usage(const char* program);

// The whole program; returns the exit status (0 all well, 1 problems, 2 a
// refused command line).
int run_doctor(int argc, char** argv);

}  // namespace sonderlark
