#pragma once

// The system's socket and resolver declarations (getaddrinfo, freeaddrinfo, sockaddr).
#ifdef _WIN32
#include <winsock2.h>
#include <ws2tcpip.h>
#else
#include <netdb.h>
#include <sys/socket.h>
#include <sys/types.h>
#endif
