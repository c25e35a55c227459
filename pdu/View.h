// How every header view is made. A view is a PDU over the same buffer whose
// _begin sits on the first byte of one layer; it is checked once, here, and
// from then on its accessors read the fixed part of the header without
// further bounds checks.
//
// Views behave like spans: copying one is free, and the accessors that write
// a field are const because they change the frame, not the view.
#pragma once

#include <cstdint>

#include "pdu/PDU.h"

namespace lumora::pdu {

// Returns a View over p's buffer starting at begin, with p's _end and _cap and
// cleared flag bytes. Throws kInvalid (22) when begin > _end, _end > _cap, or
// fewer than minimum bytes lie between begin and _end. The layer's own extra
// checks (header length fields) are made by each view's factory afterwards.
template <typename View>
View makeView(PDU p, uint16_t begin, uint16_t minimum) {
    if (begin > p._end || p._end > p._cap) throw kInvalid;
    if (static_cast<uint16_t>(p._end - begin) < minimum) throw kInvalid;
    View view;
    view._buf = p._buf;
    view._cap = p._cap;
    view._begin = begin;
    view._end = p._end;
    return view;
}

}  // namespace lumora::pdu
