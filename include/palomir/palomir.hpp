#pragma once

// Everything a C++ host needs. (palomir.h is the C facade.)
#include "palomir/api_client.hpp"
#include "palomir/app_info.hpp"
#include "palomir/bundle.hpp"
#include "palomir/client.hpp"
#include "palomir/credentials.hpp"
#include "palomir/dispatch.hpp"
#include "palomir/environment.hpp"
#include "palomir/errors.hpp"
#include "palomir/logging.hpp"
#include "palomir/model.hpp"
#include "palomir/notification_center.hpp"
#include "palomir/presentation.hpp"
#include "palomir/result.hpp"
#include "palomir/url.hpp"
#include "palomir/url_request.hpp"
#include "palomir/uuid.hpp"
