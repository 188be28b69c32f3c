// sonderlark-doctor: checks the array, its channels, the gain, the channel
// order, the virtual microphone and the live status before a run is trusted.
#include "doctor/doctor.h"

int main(int argc, char** argv) { return sonderlark::run_doctor(argc, argv); }
