#include "LocalTime.h"

#include "sync/SharedField.h"

// The C library looks at TZ and the zone file in every localtime and strftime, which costs more than the rest
// of a log line. A text that was formatted for one second is therefore kept, and these variables, which tzset
// changes, tell whether the zone is still the one that the text was made for.

LocalTimeKey localTimeKey(std::time_t second)
{
    return {second, readShared(::timezone), readShared(::daylight), readShared(::tzname[0]),
            readShared(::tzname[1])};
}

std::tm toLocalTime(std::time_t second)
{
    std::tm fields{};
    tzset(); // localtime_r alone need not notice a changed zone
    localtime_r(&second, &fields);
    return fields;
}
