#include "tools/ppctl/options.h"

namespace ppctl {

const std::vector<Syntax>& all_syntax() {
  static const std::vector<Syntax> syntax = {
      {"get", "PATH", 1, 1, "r", "print a node",
       "Prints the document that holds the node, as the store sends it; \"/\" is the whole tree.\n"
       "Status 1 when there is no such node, 5 when nodes of \"/\" may be missing because they "
       "came\n"
       "faster than they could be read.\n"},
      {"set", "PATH VALUE", 2, 2, "Sn", "store one value",
       "VALUE is JSON, or, when it is none, taken as a string: bound and \"bound\" are the same.\n"
       "What begins with {, [ or \" must be JSON, and no number may be too large for it. Nodes\n"
       "along PATH that are missing come into being.\n"},
      {"publish", "[FILE|-]", 0, 1, "n", "store a JSON document",
       "Reads one JSON object from FILE, or from stdin, and stores its nodes. Bad JSON is refused\n"
       "with its line and column before anything is sent.\n"},
      {"clear", "PATH", 1, 1, "n", "clear a node", "Status 1 when there is no such node.\n"},
      {"delete", "PATH", 1, 1, "n", "delete a node",
       "Only the ids 0x40000003 to 0x40000007 may delete: without --id, the request goes out as\n"
       "0x40000007. Status 1 when there is no such node.\n"},
      {"watch", "PATH...", 1, kAnyNumber, "CWc", "print every change of nodes",
       "Prints each notification as it comes, until it is interrupted, or as --count and\n"
       "--window say. Ends with status 3 or 4 when the store goes away. Says so once when "
       "messages\n"
       "came faster than they could be read, so that some may be lost.\n"},
      {"save", "", 0, 0, "dn", "have the store save its data", ""},
      {"sync", "ID [TEXT]", 1, 2, "n", "send another component a text through the store", ""},
      {"send", "FUNCTION [BUFFER]", 1, 2, "ncofp", "send any request",
       "Sends the request as it is given and prints what comes back until the store has served\n"
       "it. Says when what it publishes is no document, and sends it all the same. The functions\n"
       "register and unregister change where answers go: use --no-wait.\n"},
      {"record", "FILE [PATH...]", 1, kAnyNumber, "CWc", "write notifications and their times down",
       "Writes one JSON object a line to FILE (\"-\": stdout), until it is interrupted, or as\n"
       "--count and --window say. Without a PATH: /serverAssigned, /rgw, /interfaces, /system.\n"},
      {"replay", "FILE", 1, 1, "x", "publish what was recorded, at its times",
       "The whole of FILE (\"-\": stdin) is checked before the first document is sent. Recorded\n"
       "texts that are no documents are left out.\n"},
      {"queues", "[NAME...]", 0, kAnyNumber, "", "show message queues and their limits",
       "Every queue of /dev/mqueue, or the named ones: messages waiting, limits, mode, owner; and\n"
       "whether a queue of 64 x 262144 bytes, as the log consumer wants it, can be made here.\n"
       "Status 1 when a named queue does not exist.\n"},
      {"doctor", "", 0, 0, "", "find out what is wrong on this device",
       "Looks at the store, the queue limits, the log folders and the modes of their files, at\n"
       "find and fuser (tried in $TMPDIR or /tmp), the trust anchors and the clock. One line a\n"
       "finding, with advice. What depends on the environment (PATH, SSL_CERT_FILE, limits) is\n"
       "judged in this one: run it as the service runs. Status 0 when nothing is wrong, 1 when\n"
       "something is, 3 or 4 when it is the store.\n"},
  };
  return syntax;
}

}  // namespace ppctl
