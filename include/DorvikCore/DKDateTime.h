// Dates, times, date-times, durations and time zones: everything of the family at once.
#pragma once

#include <DorvikCore/DKDate.h>
#include <DorvikCore/DKDateEx.h>
#include <DorvikCore/DKDateExceptions.h>
#include <DorvikCore/DKDurationEx.h>
#include <DorvikCore/DKSystemTime.h>
#include <DorvikCore/DKTimeZone.h>
