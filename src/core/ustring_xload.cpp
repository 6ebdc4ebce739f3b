// ustring::xload: string resources that pass through the translator before they are shown.
#include <tavrin/core/ustring.h>

namespace tavrin {

bool ustring::xload(HINSTANCE module, unsigned int id)
{
    // The translator module hooks its translation in here, after a successful load.
    return load(module, id);
}

ustring ustring::xload_stc(HINSTANCE module, unsigned int id)
{
    ustring text;
    text.xload(module, id);
    return text;
}

} // namespace tavrin
