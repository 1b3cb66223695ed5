// Semaphores under the library's own names. They are the program's: the library refers to the five names that the program
// exports and defines none of them, so every handle suits the program's take, give and delete.

#include "osapi.h"

extern "C" osapiSema *osapiSemaMCreate(uint32_t options) {
  return osapiSemaMCreateTrack(__FILE_NAME__, __LINE__, options);
}

extern "C" osapiSema *osapiSemaCCreate(uint32_t options, uint32_t count) {
  return osapiSemaCCreateTrack(__FILE_NAME__, __LINE__, options, count);
}
