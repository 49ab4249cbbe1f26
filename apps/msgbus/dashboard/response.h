#pragma once

#include "dashboard/gate.h"
#include "dashboard/page_files.h"

#include <boost/beast/http/fields.hpp>
#include <boost/beast/http/string_body.hpp>

#include <string>

namespace dashboard {

using Response = boost::beast::http::response<boost::beast::http::string_body>;

/// Sets the headers of every response: nothing is kept, nothing is guessed, no other page uses it, and the page runs
/// and loads only what comes from here. The connection is closed behind each.
void SetCommonHeaders(boost::beast::http::fields& headers);

/// Returns: a response with one sentence: as JSON below /v1/, which programs read; else as text.
Response MakeRefusal(const Request& request, boost::beast::http::status status, const std::string& reason);

/// Returns: a response that sends an admitted browser on to the page.
Response MakeAdmission(const Request& request, const Verdict& verdict);

/// Returns: a response with a file of the page.
Response MakePage(const Request& request, const PageFile& file);

} // namespace dashboard
