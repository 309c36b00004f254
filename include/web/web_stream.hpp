#pragma once
// The stream types of the web server's connections. Each connection's work
// runs on its own strand of one server thread's io_context. The executor is
// named concretely rather than type-erased (any_io_executor): every handler of
// every request copies it, and the erased copy costs more than the request's
// own parsing.
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/strand.hpp>
#include <boost/beast/core/tcp_stream.hpp>

using WebExecutor = boost::asio::strand<boost::asio::io_context::executor_type>;
using WebSocketTcp = boost::asio::ip::tcp::socket::rebind_executor<WebExecutor>::other;
using WebTcpStream = boost::beast::basic_stream<boost::asio::ip::tcp, WebExecutor>;
