#pragma once
// Folder and item ids as the Graph mailbox API shows them. They carry the same tagged text as the
// EWS ids (see mailbox_store.h), so both APIs name the same objects, but in their own form:
// URL-safe base64 ('-' and '_', with padding) of 10 34 95 + tag, which starts "EDSV" like the ids
// in Microsoft's Graph samples. An id of one API is refused by the other, as the two id formats of
// Exchange Online are not documented to be interchangeable; the URL-safe alphabet lets an id stand
// in a URL path unescaped.
#include <string>

namespace exo_sim
{

// The Graph form of an EWS id made by the mailbox store; empty when `ews_id` is not one.
std::string graph_id_from_ews(const std::string& ews_id);

// The EWS id behind a Graph id; false when `graph_id` is not one of the Graph form.
bool ews_id_from_graph(const std::string& graph_id, std::string& ews_id);

// URL-safe base64 (RFC 4648 section 5) with padding, and back; decoding accepts only that alphabet.
std::string base64url_encode(const std::string& bytes);
bool base64url_decode(const std::string& text, std::string& bytes);

}  // namespace exo_sim
