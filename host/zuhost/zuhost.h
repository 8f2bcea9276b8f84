#pragma once

// The whole host layer: values, errors, locks, sleeping, logging, brokers.
#include <zuhost/zubroker.h>
#include <zuhost/zuerror.h>
#include <zuhost/zuhierarchyowner.h>
#include <zuhost/zulog.h>
#include <zuhost/zumutex.h>
#include <zuhost/zuos.h>
#include <zuhost/zuvalue.h>
#include <zuhost/zuwaitpoint.h>
