// ustring::xload: string resources that pass through the translator before they are shown.
#include <tavrin/core/ustring.h>
#include <tavrin/l10n/translator.h>

namespace tavrin {

bool ustring::xload(HINSTANCE module, unsigned int id)
{
    if (!load(module, id))
        return false;
    // Without a translation the loaded text stays as it is; the load itself succeeded.
    CTranslatorInstance::Ref().XlateEx(*this);
    return true;
}

ustring ustring::xload_stc(HINSTANCE module, unsigned int id)
{
    ustring text;
    text.xload(module, id);
    return text;
}

} // namespace tavrin
