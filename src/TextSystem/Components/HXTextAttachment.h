#pragma once

#include "Text/String/Atoms/HXTextAtom.h"

#include <QColor>
#include <QFont>

// What an entity's object character shows in the editor: a small label in a rounded box (a link,
// an image, a footnote). It knows the atom it stands for; when its paragraph changes around a
// surviving entity, the storage gives it the entity's new atom rather than making another, so
// that whatever the view keeps of it (its size, its hover state) stays. Main thread.
class HXTextAttachment {
public:
    explicit HXTextAttachment(HXTextAtomRef atom)
        : m_atom(std::move(atom)) {}

    const HXTextAtomRef &atom() const { return m_atom; }
    void setAtom(HXTextAtomRef atom) { m_atom = std::move(atom); }

    QFont font;
    QColor strokeColor;
    QColor fillColor;
    QColor labelColor;

private:
    HXTextAtomRef m_atom;
};
