#include "Text/String/Access/HXAtomicString.h"

std::shared_ptr<HXAtomicString>
HXAtomicString::stringWithMarkup(const std::shared_ptr<HXMarkup> &markup,
                                 HXDefinitionSelector recognizedDefinitions) {
    auto string = std::make_shared<HXAtomicString>();
    setUpString(string, markup, recognizedDefinitions);
    return string;
}

void HXAtomicString::read(const std::function<void()> &block) {
    m_lock.synchronizedRead(block);
}

void HXAtomicString::write(const std::function<void()> &block) {
    m_lock.synchronizedWrite(block);
}
