// Off, on and mixed check states for a menu item. QAction knows only checked or not, so the mixed
// state is kept beside it and shown with a small dash icon, which desktop menus (including menus
// exported over D-Bus) display where a check mark would go.
#pragma once

class QAction;

inline constexpr int menuItemStateOff = 0;
inline constexpr int menuItemStateOn = 1;
inline constexpr int menuItemStateMixed = -1;

// The dynamic property on the item holding its Qt::CheckState as an int.
inline constexpr char menuItemCheckStateProperty[] = "checkState";

// Makes the item checkable and shows state: 0 off, a positive value on, a negative value mixed.
// Off and on are QAction's unchecked and checked with no icon; mixed is unchecked, the property
// set to Qt::PartiallyChecked, and the dash icon.
void setMenuItemCheckState(QAction *item, int state);

// 0, 1 or -1 as last shown; 0 for an item that is not checkable or absent.
int menuItemCheckState(const QAction *item);
