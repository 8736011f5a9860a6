// ScriptMessageHandler: receiver of the messages a page posts to a named
// native handler (window.webkit.messageHandlers.<name>.postMessage(body)).
//
// The body arrives converted to an AnyValue the way JSON would carry it:
// objects, arrays, strings, numbers (integral numbers as integers), booleans
// and null; undefined and values JSON cannot express arrive as null or are
// left out of their object.
//
// Main queue only: messages are delivered on the main queue.
#pragma once

#include "host/any_value.h"

namespace appex {

class ScriptMessageHandler {
 public:
  virtual ~ScriptMessageHandler() = default;

  virtual void didReceiveScriptMessage(const AnyValue& body) = 0;
};

}  // namespace appex
