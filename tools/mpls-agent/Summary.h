// The agent's summary as a network engineer reads it. The agent builds one
// JSON document (printed as is with --json); this renders it as text:
//
//   MplsAgent::printSummary(doc, stdout);
//
//   summary: every change confirmed
//   table      unit  entries  desired  restored  written  ...
//   MplsIsem2     1     5000     5000      4800     5000  ...
//   restart    9600 entries restored, 480 swept, ...
//   changes    20480 (20000 writes, 0 removes, 480 swept) in 2.31 s: ...
//   latency    write to hardware confirmation: p50 4.10 ms, ...
//   resources  in-LIFs 1300 of 65536 in use, FECs 1290 of 65536 in use
//   failures   none
//
// The document's fields are those Agent.cpp's summary() fills in.
#pragma once

#include <cstdio>

#include "tools/mpls-show/Render.h"

namespace MplsAgent {

void printSummary(const MplsShow::Json &doc, std::FILE *out);

} // namespace MplsAgent
