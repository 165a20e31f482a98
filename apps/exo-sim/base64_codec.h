#pragma once
// Standard base64 (RFC 4648, with padding), as EWS uses for xs:base64Binary and item ids.
#include <string>

namespace exo_sim
{

std::string base64_encode(const std::string& bytes);

// Decodes, skipping whitespace (EWS samples wrap base64 lines). False on any other
// character outside the alphabet or on a bad length.
bool base64_decode(const std::string& text, std::string& bytes);

}  // namespace exo_sim
