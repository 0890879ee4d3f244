// Commands to a running upload server: one JSON object a line, answered by one JSON line.
//
//   {"do":"reply","times":2,"status":500}   the next 2 uploads; other members: reply.h
//   {"do":"default","delay_ms":200}         every upload without a scripted answer
//   {"do":"clear"}                          back to plain 200
//   {"do":"refuse","times":3}               closes the next 3 connections when they are accepted
//   {"do":"pause"}, {"do":"resume"}         closes the port and all connections; listens again
//   {"do":"drop"}                           closes all connections
//   {"do":"report"}                         what was seen so far
//
// Every answer has "ok"; when it is false, "error" says why.
#ifndef LAB_UPLOAD_SERVER_CONTROL_H
#define LAB_UPLOAD_SERVER_CONTROL_H

#include <string>

#include "lab/upload_server/upload_server.h"

namespace lab {

/// Carries out one command. @return the answer, without a newline.
std::string control(UploadServer& server, const std::string& line);

/// Whether a server would carry it out, without one.
/// @throws std::invalid_argument saying what is wrong with it
void check_command(const std::string& line);

}  // namespace lab

#endif
