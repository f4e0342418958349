/* zelo: power-management service of the management controller.
 * The one header every caller includes. C99 and C++. */
#ifndef ZELO_H
#define ZELO_H

#include <zelo/acquisition.h>
#include <zelo/common.h>
#include <zelo/daemon.h>
#include <zelo/events.h>
#include <zelo/expansion.h>
#include <zelo/firmware.h>
#include <zelo/history.h>
#include <zelo/metriclog.h>
#include <zelo/powersupply.h>
#include <zelo/register_list.h>
#include <zelo/registers.h>
#include <zelo/telemetry.h>
#include <zelo/tracelog.h>

#endif
