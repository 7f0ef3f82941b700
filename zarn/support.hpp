// Umbrella header: the whole public interface of libzarn_support.
#ifndef ZARN_SUPPORT_HPP
#define ZARN_SUPPORT_HPP

#include "zarn/core/records.hpp"
#include "zarn/support/assistance_data.hpp"
#include "zarn/support/broadcast_interface.hpp"
#include "zarn/support/clock_filter.hpp"
#include "zarn/support/constellation_analyzer.hpp"
#include "zarn/support/coordinate_conversion.hpp"
#include "zarn/support/encryption.hpp"
#include "zarn/support/eop_filter.hpp"
#include "zarn/support/ephemeris_cache.hpp"
#include "zarn/support/ephemeris_conversion.hpp"
#include "zarn/support/export.hpp"
#include "zarn/support/force_model.hpp"
#include "zarn/support/gamma_estimator.hpp"
#include "zarn/support/log.hpp"
#include "zarn/support/math.hpp"
#include "zarn/support/numerical_integration.hpp"
#include "zarn/support/prediction.hpp"
#include "zarn/support/serialization.hpp"
#include "zarn/support/time_conversion.hpp"
#include "zarn/support/utility.hpp"
#include "zarn/support/utility/mutex.hpp"
#include "zarn/support/validation.hpp"

#endif
