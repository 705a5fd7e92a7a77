// Everything a program needs to use the library, in one include: the agent
// state model, the next-hop table manager with its records and defragmenter,
// the chip access and trace of the next-hop table, the library's version, and
// the platform pieces every caller touches: the activity lock (the library is
// called with it held, see Kiln::ActivityLockGuard), the event loop, the
// clocks, the trace configuration and the Flashlog trace files. The types
// declared in brevant/schema are generated into the build tree; their headers
// are found on the same include path.
#pragma once

// The agent state model.
#include "Brevant/BrevantCommonSmData.h"
#include "Brevant/BrevantPortStatus.h"
#include "Brevant/FfuEntries.h"
#include "Brevant/KernelDev.h"
#include "Brevant/LagIndex.h"
#include "Brevant/PortEventCounter.h"
#include "Brevant/PortList.h"
#include "Brevant/SwitchInfo.h"
#include "Brevant/SwitchPort.h"
#include "Brevant/Vxlan1GStatus.h"

// The next-hop table and its defragmenter.
#include "Brevant/DefragManager.h"
#include "Brevant/DefragScheduler.h"
#include "Brevant/ECMPGroup.h"
#include "Brevant/FeatureType.h"
#include "Brevant/NextHopAccess.h"
#include "Brevant/NextHopCallback.h"
#include "Brevant/NextHopEntry.h"
#include "Brevant/NextHopManager.h"
#include "Brevant/NextHopTrace.h"
#include "Brevant/U64Collection.h"

#include "Brevant/Version.h"

// The platform: activity lock, event loop, clocks, tracing.
#include "Flashlog/Flashlog.h"
#include "Kiln/ActivityManager.h"
#include "Kiln/Clock.h"
#include "Kiln/Lock.h"
#include "Trace/Trace.h"
