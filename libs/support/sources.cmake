# The library's sources, one list for every build that compiles them (the
# main build and the fuzz project). Paths are relative to this directory;
# includers prepend it. A new source file is added here.
set(ZARN_SUPPORT_SOURCES
    src/assistance_data.cpp
    src/assistance_data_file.cpp
    src/clock_filter.cpp
    src/constellation_analyzer.cpp
    src/coordinate_conversion.cpp
    src/encryption.cpp
    src/eop_filter.cpp
    src/ephemeris_cache.cpp
    src/ephemeris_conversion.cpp
    src/force_model.cpp
    src/force_model/geopotential.cpp
    src/force_model/radiation_pressure.cpp
    src/force_model/third_body.cpp
    src/gamma_estimator.cpp
    src/glonass_prediction.cpp
    src/keplerian_fit.cpp
    src/log.cpp
    src/math.cpp
    src/numerical_integration.cpp
    src/numerical_integration/gauss_jackson.cpp
    src/prediction.cpp
    src/records.cpp
    src/serialization.cpp
    src/tables/assistance_default_table.cpp
    src/tables/gauss_jackson_table.cpp
    src/tables/geopotential_table.cpp
    src/tables/nutation_table.cpp
    src/time_conversion.cpp
    src/utility.cpp
    src/utility/mutex.cpp
    src/validation.cpp)
list(TRANSFORM ZARN_SUPPORT_SOURCES PREPEND ${CMAKE_CURRENT_LIST_DIR}/)
