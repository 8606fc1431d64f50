// The formatted output engine behind QZ_SNPRINTF_A/W and every formatting
// call of the strings and the debug functions.
//
// One engine, written once over the unit type: `char` for narrow text,
// `unsigned short` (UTF-16) for wide text. It writes into a caller's fixed
// buffer, cuts silently when the buffer is full, and measures when the sink
// has no buffer. It keeps no state between calls and takes no lock, so any
// number of threads may run it at once.
#ifndef QZBASE_QZFORMATENGINE_H
#define QZBASE_QZFORMATENGINE_H

#include <stdarg.h>
#include <stdint.h>

// Where the engine writes. `cur` is the place for the next unit and `end` the
// last unit of the buffer, the one kept for the terminator; both null means
// measuring. The engine stores its running position back into `cur` when it
// ends and just before it reports a full buffer.
template <class Unit>
struct QzFormatSink {
  Unit* cur;
  Unit* end;
};

// Called when the buffer is full; always -1, which makes the engine stop.
template <class Unit>
int QzFormatFlush(QzFormatSink<Unit>* sink);

// Formats `format` with `values` into `sink`. Returns the number of units
// produced (stored, or counted when measuring; at most INT_MAX), or -1 when
// the buffer filled up before the end of the format. Stores no terminator.
// An empty format gives 0 at once.
template <class Unit>
int QzFormatEngine(const Unit* format, QzFormatSink<Unit>* sink, va_list values);

// ---- Pieces of the floating conversions, reachable for tests ----------------

// The digit buffer of QzFormatDigits: the 80 places the generator works in,
// plus room for the one place a carry can push the end of a fixed-point
// string to, plus the terminator.
enum { kQzFormatDigitPlaces = 80, kQzFormatDigitBuffer = 82 };

// Decimal digits of `value`, read as 0.ddd times 10^decpt. `ndigit` is the
// number of digits wanted (capped at 78); with `emode` false it counts digits
// after the point instead. Digits come from repeated multiplication in double
// precision and are rounded half up; no more than 79 are ever made. Fills
// `digits` (kQzFormatDigitBuffer chars, zero-terminated) and returns their
// number. Finite values only.
int QzFormatDigits(double value, int ndigit, bool emode, char* digits, int* decpt, bool* negative);

// The text of `f`, `e` or `E` (by `conversion`) without a sign; returns its
// length and reports the sign in `negative`. `text` needs 512 units.
template <class Unit>
int QzFormatFixedOrExp(double value, Unit conversion, bool alternate, uint32_t precision, Unit* text,
                       bool* negative);

// The text of `g` for `ndigit` significant digits (capped at 78), with a
// leading '-' for a negative value; returns its length. `text` needs 512 units.
template <class Unit>
int QzFormatGeneral(double value, uint32_t ndigit, bool alternate, Unit* text);

#endif  // QZBASE_QZFORMATENGINE_H
