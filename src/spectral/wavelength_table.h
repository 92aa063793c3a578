// Reading the instrument's point count and wavelength table, shared by the
// wavelength and the spectrum operations.
//
// Each function works on the active slot, which it looks up itself: they run
// one after another within one exported call, and each must see the caches
// the previous one left (the count a count read has just stored).
#ifndef KAVREL_SPECTRAL_WAVELENGTH_TABLE_H
#define KAVREL_SPECTRAL_WAVELENGTH_TABLE_H

#include <cstdint>

#include "spectral/transfer_buffer.h"

namespace kavrel {

// The library never handles more points than one table query brings back.
constexpr int32_t kMaxWavelengthPoints = 2048;

// Asks the instrument for its point count (CM2: the count word; NIR: a whole
// table read, since NIR has no count request) and caches it.
int32_t read_wavelength_count(uint16_t &count);

// CM2 whole-table and whole-spectrum reads are sized by the cached point
// count, asked for first when not known yet: a capacity below it is -5, before
// anything but the count is requested.
int32_t require_room_for_points(uint16_t cached_count, int32_t capacity);

// Reads the whole table into wavelengths[0..capacity); delivered receives the
// number of entries written. NIR: more entries than capacity is -5. CM2: the
// cached count (read first when 0) above capacity is -5 before the query;
// then as many entries as the answer holds, up to capacity, are delivered.
int32_t read_wavelength_table(double *wavelengths, int32_t capacity, int32_t &delivered);

// Reads the whole table into a buffer of count entries, count being the
// point count just read. An answer with fewer than needed entries is -4:
// the entries the caller will look at must all come from the instrument.
int32_t read_table_of(uint16_t count, int32_t needed, transfer_buffer<double> &table);

// CM2: reads count entries from entry first into wavelengths, as many as the
// answer holds and capacity allows.
int32_t read_wavelength_run(uint16_t first, uint16_t count, double *wavelengths, int32_t capacity);

}  // namespace kavrel

#endif
