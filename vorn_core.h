#ifndef VORN_CORE_H
#define VORN_CORE_H

// The one header a host includes.

#include "platform/CJsonObject.h"
#include "platform/DllParser.h"
#include "platform/LogMessage.h"
#include "platform/Runnable.h"
#include "platform/TextUtils.h"
#include "platform/Thread.h"

#include "core/DataDirection.h"
#include "core/ErrorCode.h"
#include "core/SFData.h"
#include "core/SFMessage.h"
#include "core/SFRespData.h"
#include "core/sf_response.h"

#include "io/CmdIOService.h"
#include "io/Formatter.h"
#include "io/Processer.h"
#include "io/SFCommandParser.h"
#include "io/SFIOChannel.h"

#include "config/CommonConfig.h"
#include "config/ConfigChecker.h"
#include "config/ConfigManager.h"
#include "config/ServiceId.h"
#include "config/cmd_info.h"

#include "routing/ContextWrapper.h"
#include "routing/SFServiceManager.h"

#include "service/HalIsolation.h"
#include "service/MessageQueue.h"
#include "service/SFService.h"
#include "service/SFServiceMonitorRunnable.h"
#include "service/SFServiceRequestRunnable.h"
#include "service/SFServiceResponseRunnable.h"
#include "service/ServiceThread.h"
#include "service/cmd_entry.h"

#include "services/MiscService.h"
#include "services/ModemService.h"
#include "services/SensorService.h"

#endif
