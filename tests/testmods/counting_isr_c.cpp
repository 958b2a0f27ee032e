// counting_isr under another file name.
#include "counting_isr.cpp"
