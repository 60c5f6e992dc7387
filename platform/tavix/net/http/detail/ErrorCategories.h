// Include first in every source of the HTTP layer.
//
// Beast's and Asio's error categories are static objects inside inline functions, compared by
// address. This library hides its symbols, which would give it private copies: an error it
// reports (beast::http::error::body_limit, asio::error::eof ...) would then never compare equal
// to the same error made in the caller's code. Declared with default visibility here, the
// library's copies are exported and the dynamic linker makes both sides share one object.
#pragma once

#pragma GCC visibility push(default)
#include <boost/asio/error.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/beast/core/error.hpp>
#include <boost/beast/http/error.hpp>
#pragma GCC visibility pop
