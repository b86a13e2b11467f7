// Everything in Boost.Asio that is not a template is compiled here, once for the whole program.
#include <boost/asio/impl/src.hpp>
