/* A stand-in for the chip SDK: the four chip API functions the library calls
 * (FmApi/FmApi.h), over an in-memory next-hop table. A vendor library takes
 * its place the same way: BREVANT_CHIP_LIBRARY names it. */
#include <stdint.h>

enum { tableBase = 0x160000, tableEntries = 65536, statusOk = 0, statusInvalidArgument = 2 };

static uint64_t table[tableEntries];

/* The first table entry of a call, or -1 when the call leaves the table.
 * Addresses count 32-bit registers: entry i is at tableBase + 2i. */
static int64_t firstEntry(int32_t sw, uint32_t address, int32_t count) {
  if (sw != 0 || count < 0 || address < tableBase || (address - tableBase) % 2 != 0) return -1;
  const int64_t first = (address - tableBase) / 2;
  return first + count <= tableEntries ? first : -1;
}

int32_t fmWriteUINT64Mult(int32_t sw, uint32_t address, int32_t count, uint64_t* data) {
  const int64_t first = firstEntry(sw, address, count);
  if (first < 0) return statusInvalidArgument;
  for (int32_t k = 0; k < count; ++k) table[first + k] = data[k];
  return statusOk;
}

int32_t fmReadUINT64Mult(int32_t sw, uint32_t address, int32_t count, uint64_t* data) {
  const int64_t first = firstEntry(sw, address, count);
  if (first < 0) return statusInvalidArgument;
  for (int32_t k = 0; k < count; ++k) data[k] = table[first + k];
  return statusOk;
}

int32_t fmGetLogicalPortGlort(int32_t sw, int32_t logicalPort, uint32_t* glort) {
  if (sw != 0 || logicalPort < 0) return statusInvalidArgument;
  *glort = 0x4000u + (uint32_t)logicalPort;
  return statusOk;
}

const char* fmErrorMsg(int32_t status) {
  return status == statusOk                ? "Success"
         : status == statusInvalidArgument ? "Invalid argument"
                                           : "Failure";
}
