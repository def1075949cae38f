// standard_codec.hpp - MQTT 3.1.1 and 5.0 as the standards have them, for the other modules: packets to structs that
// point into them, and structs to bytes. No state, no heap, no log lines.
//
//   packet_length           where the next packet of a stream ends
//   decode_*                one packet that a client sent -> a struct, or the reason to end the connection
//   size_of, encode         a struct -> one packet for a client of this level and maximum packet size
//   decode_properties, ...  the properties of a message, to be stored and read back
#ifndef TARN_CODEC_STANDARD_STANDARD_CODEC_HPP
#define TARN_CODEC_STANDARD_STANDARD_CODEC_HPP

#include "filters.h"
#include "framing.h"
#include "packets.h"
#include "properties.h"
#include "reason.h"
#include "topic.h"
#include "types.h"
#include "utf8.h"

#endif
