#pragma once

#include "tools/ctl/CtlOptions.h"

namespace quorvane::ctl {

/// Each does what its command says and prints what comes of it. They throw a Failure when it cannot be done.
void run(const Send& command);
void run(const Single& command);
void run(const Flush& command);
void run(const States& command);
void run(const DisplayURL& command);
void run(const Upload& command);
void run(const UploadLog& command);
void run(const Listen& command);
void run(const Status& command);
void run(const Stats& command);
void run(const Storebags& command);
void run(const Doctor& command);

}  // namespace quorvane::ctl
