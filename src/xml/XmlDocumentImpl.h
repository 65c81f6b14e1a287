// SPDX-License-Identifier: MIT

#pragma once

#include <libxml/tree.h>

#include <memory>

#include "zarip/xml/XmlDocument.h"

namespace zarip::xml {

struct ZARIP_HIDDEN XmlDocument::Impl {
    struct Delete {
        void operator()(xmlDoc* freed) const { xmlFreeDoc(freed); }
    };
    std::unique_ptr<xmlDoc, Delete> document;
};

}  // namespace zarip::xml
