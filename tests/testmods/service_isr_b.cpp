// The service-driving ISR module under a second name, with its own state,
// for the tests that need two such modules at once.
#include "service_isr.cpp"
